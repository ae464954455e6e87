// What a simulated service answers on the bus, written as JSON.
#pragma once

#include "site/bus_daemon.h"

namespace site
{

/// The values of a message with the members of a JSON object. Ends the program for a text that is none.
std::string bus_values(const std::string &json);

/// A method that always answers so.
bus_method answers(const std::string &json);

} // namespace site
