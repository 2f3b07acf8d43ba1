#pragma once

#include "field.h"

#include <array>

/// Logarithms of up to t elements.
using BchLogs = std::array<uint16_t, kBchMostFlips>;

/// Sets the first elements of logs to the logarithms of the roots of a monic polynomial of degree 1 to t
/// whose coefficient of x^0 is not 0, in any order. False, with logs in any state, unless it has as many
/// distinct roots in the field as its degree.
bool bch_find_roots(const BchField& field, const BchPolynomial& polynomial, BchLogs& logs);
