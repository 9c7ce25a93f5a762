#pragma once

#include <cstddef>

namespace kvx::bench {

/// Prints what it costs when `subjects` subjects come and go on one host, `rounds` times by one
/// session and `rounds` times by many, while a stream flows between two others.
void measureInterest(std::size_t subjects, int rounds);

/// Prints what it costs when `hosts` hosts join one node of the engine at once.
void measureJoins(std::size_t hosts);

/// Prints what subscriptions and copies cost at the engine, without any of our own programs.
void measureChoice();

}  // namespace kvx::bench
