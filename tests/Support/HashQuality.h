#pragma once
// Measures of a 32-bit hash's quality for the tests of the key hashes.
//
// Spread: the keys' hashes in 2^16 buckets, by their low bits (a table's
// bucket index) and by their high bits (the low bits of the reversed hash
// that orders chains), as Pearson's chi-square against an even spread. With
// d = buckets - 1 degrees of freedom a good hash gives d +- sqrt(2d) (362
// here); spreadIsEven allows six standard deviations, so a sound hash passes
// and a skewed one (many keys on few buckets) fails by far.
//
// Avalanche: flipping one input bit should flip each output bit with
// probability one half. For every (input bit, output bit) pair the measured
// rate over `samples` random inputs must lie within `tolerance` of 0.5.

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace TestSupport {

constexpr unsigned spreadBucketBits = 16;

// Chi-square of the hashes over 2^16 buckets, taking `shift` as the bucket
// index's lowest bit.
inline double chiSquare(const std::vector<uint32_t> & hashes, unsigned shift) {
  std::vector<uint32_t> counts(1u << spreadBucketBits);
  for (uint32_t hash : hashes) {
    ++counts[(hash >> shift) & (counts.size() - 1)];
  }
  const double expected = static_cast<double>(hashes.size()) / static_cast<double>(counts.size());
  double sum = 0;
  for (uint32_t count : counts) {
    const double off = count - expected;
    sum += off * off / expected;
  }
  return sum;
}

inline ::testing::AssertionResult spreadIsEven(const std::vector<uint32_t> & hashes) {
  const double freedom = (1u << spreadBucketBits) - 1;
  const double bound = 6 * std::sqrt(2 * freedom);
  for (unsigned shift : {0u, 32u - spreadBucketBits}) {
    const double chi = chiSquare(hashes, shift);
    if (std::fabs(chi - freedom) > bound) {
      return ::testing::AssertionFailure() << "chi-square " << chi << " of the bits from " << shift
                                           << " lies outside " << freedom << " +- " << bound;
    }
  }
  return ::testing::AssertionSuccess();
}

// `hashAll(random)` draws one random input of `inputBits` bits and returns
// its hash, then the hash of the input with bit 0 flipped, bit 1 flipped, and
// so on. The worst (input bit, output bit) rate must lie within `tolerance`
// of 0.5.
inline ::testing::AssertionResult avalanches(unsigned inputBits, unsigned samples, double tolerance,
                                             const std::function<std::vector<uint32_t>(std::mt19937_64 &)> & hashAll) {
  std::mt19937_64 random(20261125);
  std::vector<uint32_t> flips(inputBits * 32);
  for (unsigned sample = 0; sample < samples; ++sample) {
    const std::vector<uint32_t> hashes = hashAll(random);
    for (unsigned bit = 0; bit < inputBits; ++bit) {
      const uint32_t changed = hashes[0] ^ hashes[bit + 1];
      for (unsigned out = 0; out < 32; ++out) {
        flips[bit * 32 + out] += (changed >> out) & 1;
      }
    }
  }
  double worst = 0;
  unsigned worstPair = 0;
  for (unsigned pair = 0; pair < flips.size(); ++pair) {
    const double off = std::fabs(static_cast<double>(flips[pair]) / samples - 0.5);
    if (off > worst) {
      worst = off;
      worstPair = pair;
    }
  }
  if (worst > tolerance) {
    return ::testing::AssertionFailure() << "input bit " << worstPair / 32 << " flips output bit " << worstPair % 32
                                         << " at rate " << 0.5 + worst << " or " << 0.5 - worst;
  }
  return ::testing::AssertionSuccess();
}

}  // namespace TestSupport
