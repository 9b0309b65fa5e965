// Fills the configuration record from the file "tervado.conf".
#pragma once

#include "config/fields.h"

namespace nimbus {

/// Zeroes the record, maps the shared region beside it, and reads "tervado.conf" in the working
/// directory. Returns 0, or -1 when the file cannot be opened; the record then stays zeroed, with
/// an empty map. Keys that are unknown, stand in a section or do not parse are skipped without a
/// word. An empty map becomes 32 empty channels (31 commas), which are stored but not published.
/// Main thread, before any other thread runs.
int config_load(PublishChannelMap publish_channel_map);

/// Stores one key of the file: the handler that the INI parser calls. `user` points to a
/// PublishChannelMap, which may be null. Returns 1 when the key was stored, 0 when it is unknown or
/// stands in a section. Main thread.
int config_handler(void* user, const char* section, const char* name, const char* value);

}  // namespace nimbus
