// Included before everything else in the service's sources: what they call of the C library ends at
// the board of the fuzz targets. The fuzzer itself calls the library as ever.
#pragma once

#pragma redefine_extname system fuzz_system
#pragma redefine_extname popen fuzz_popen
#pragma redefine_extname pclose fuzz_pclose
#pragma redefine_extname sleep fuzz_sleep
#pragma redefine_extname usleep fuzz_usleep
#pragma redefine_extname sendto fuzz_sendto
