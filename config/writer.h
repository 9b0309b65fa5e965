// Rewrites the configuration file from the record.
#pragma once

namespace nimbus {

/// Writes "/boot/tervado-nimbus.conf" and makes the working copy "/run/tervado.conf" from it, with
/// the boot partition remounted read-write for the write. Returns the status of the last shell
/// command, or -1 when the file cannot be opened; nothing else is done then. Failing commands and
/// writes go unnoticed. Control thread, RC thread; when both save at a time, one waits for the
/// other.
int config_save() noexcept;

}  // namespace nimbus
