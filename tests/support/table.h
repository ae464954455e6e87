// Rows of a table: inputs and what they give.
#pragma once

#include <tuple>
#include <vector>

template <class... Columns> using table = std::vector<std::tuple<Columns...>>;
