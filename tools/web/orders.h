// What browsers and programs order, in nimbusctl's words -> commands of the service.
#pragma once

#include <cjson/cJSON.h>

#include <optional>
#include <string>
#include <vector>

#include "tools/web/command_queue.h"

namespace nimbus::web {

/// What an order becomes. Several commands go one after the other.
using Orders = std::vector<QueuedCommand>;

/// The order in a JSON object: `words` with `confirmed`, `name` with `values`, or `interface`.
/// `report` is the service's last report, or null. Throws Failure that says what is wrong for a
/// person.
[[nodiscard]] Orders orders_of(const cJSON* order, const cJSON* report);

/// The text that ends what a command has made the gimbal do.
[[nodiscard]] std::string order_to_rest();

}  // namespace nimbus::web
