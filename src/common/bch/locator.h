#pragma once

#include "field.h"

#include <array>

/// Syndromes of a received word: element j is its polynomial at alpha^j, for j = 1 to 2t. Element 0 means
/// nothing. In a binary code element 2j is the square of element j.
using BchSyndromes = std::array<BchElement, 2 * kBchMostFlips + 1>;

/// Finds the monic polynomial whose roots are alpha^p for each power p of the received word that is wrong.
/// Not all syndromes are 0. False, with locator untouched, when more than t powers must be wrong.
///
/// If more than t powers are wrong, the result may be true and the locator any polynomial. It is right when
/// it has as many roots in the field as its degree: Let the roots be X_i. The syndromes satisfy the shortest
/// recurrence that the locator stands for, so S_j is the sum of Y_i X_i^j with Y_i in the field, none of them
/// 0. S_2j is the square of S_j for j = 1 to t, so the sum of (Y_i^2 + Y_i) X_i^2j is 0 for these j. The
/// squares of at most t different roots allow that only when each Y_i is 1.
bool bch_find_locator(const BchField& field, const BchSyndromes& syndromes, BchPolynomial& locator);
