// Arithmetic on numbers from outside.
#pragma once

namespace vela
{

/// The sum, wrapped to its type: numbers in files and documents may be anything.
template <class Number> Number wrapping_sum(Number a, Number b)
{
    Number sum;
    (void)__builtin_add_overflow(a, b, &sum); // stores the wrapped sum either way
    return sum;
}

} // namespace vela
