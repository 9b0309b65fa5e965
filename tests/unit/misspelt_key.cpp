// What must not compile: see CMakeLists.txt beside this folder.
#include "config/report_items.h"

constexpr nimbus::ReportItem kItem{"vbitrate", "video_bitrat"};
