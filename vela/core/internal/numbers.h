// Numbers from outside: sums that wrap, counts that never lead out of an array.
#pragma once

#include <algorithm>
#include <cstddef>
#include <span>

namespace vela
{

/// The sum, wrapped to its type: numbers in files and documents may be anything.
template <class Number> Number wrapping_sum(Number a, Number b)
{
    Number sum;
    (void)__builtin_add_overflow(a, b, &sum); // stores the wrapped sum either way
    return sum;
}

/// The elements of a record's array: as many as its count says, at most all.
template <class Element, size_t Size> std::span<Element> counted(Element (&array)[Size], size_t count)
{
    return {array, std::min(count, Size)};
}

} // namespace vela
