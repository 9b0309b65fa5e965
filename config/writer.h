// Rewrites the configuration file from the record.
#pragma once

namespace nimbus {

/// Replaces "/boot/tervado-nimbus.conf", whole or not at all, and makes the working copy
/// "/run/tervado.conf" from it, with the boot partition remounted read-write for the write. A text
/// is written up to its first line end. Returns the status of the last shell command, or -1 when
/// the file cannot be opened; nothing else is done then. Commands that fail and a card that is full
/// go unnoticed; the former settings stay then. Control thread, RC thread; one waits for the other.
int config_save() noexcept;

/// To be said when the record was not loaded: what the card has is not replaced before a copy of it
/// is on the card, too, as "tervado-nimbus.conf.kept". Main thread, before any other thread runs.
void config_is_not_the_cards() noexcept;

}  // namespace nimbus
