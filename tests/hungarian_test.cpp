// Assignment solver: optimality against brute force, tie-breaks, bad input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "harness.h"
#include "orva/tracker.h"

namespace {

using Matrix = std::vector<std::vector<float>>;

// Exhaustive minimum over all assignments of min(N, M) pairs (at most 7! = 5040 of them).
double brute_force_min(const Matrix& cost) {
  const int N = (int)cost.size(), M = (int)cost[0].size();
  const bool rowsFew = N <= M;
  const int few = rowsFew ? N : M, many = rowsFew ? M : N;
  std::vector<int> pick(many);
  for (int i = 0; i < many; i++) pick[i] = i;
  double best = INFINITY;
  // Permuting the larger side and keeping the first `few` entries enumerates every
  // injective map (repeatedly, which is harmless).
  do {
    double total = 0;
    for (int k = 0; k < few; k++) total += rowsFew ? cost[k][pick[k]] : cost[pick[k]][k];
    best = std::min(best, total);
  } while (std::next_permutation(pick.begin(), pick.end()));
  return best;
}

Matrix random_matrix(int n, int m, bool coarse) {
  auto& gen = orva_test::rng();
  // Coarse values (0..3) make many exact ties, which exercises the prime/star search far
  // more than distinct reals do.
  std::uniform_int_distribution<int> small(0, 3);
  std::uniform_real_distribution<float> real(0.0f, 10.0f);
  Matrix c(n, std::vector<float>(m));
  for (auto& row : c)
    for (float& v : row) v = coarse ? (float)small(gen) : real(gen);
  return c;
}

TEST(Hungarian, MatchesBruteForceOnRandomMatrices) {
  auto& gen = orva_test::rng();
  std::uniform_int_distribution<int> dim(1, 7);
  for (int trial = 0; trial < 400; trial++) {
    const int n = dim(gen), m = dim(gen);
    Matrix cost = random_matrix(n, m, trial % 2 == 0);
    const Matrix original = cost;
    std::vector<int> a;
    const float total = solveAssignment(cost, a);
    SCOPED_TRACE(testing::Message() << "trial " << trial << ": " << n << " x " << m);

    ASSERT_EQ(cost, original) << "the input must not be modified";
    ASSERT_EQ((int)a.size(), n);
    std::vector<bool> colUsed(m, false);
    int assigned = 0;
    double sum = 0;
    for (int i = 0; i < n; i++) {
      if (a[i] < 0) {
        EXPECT_EQ(a[i], -1);
        continue;
      }
      ASSERT_LT(a[i], m);
      EXPECT_FALSE(colUsed[a[i]]) << "column " << a[i] << " used twice";
      colUsed[a[i]] = true;
      assigned++;
      sum += cost[i][a[i]];
    }
    EXPECT_EQ(assigned, std::min(n, m));
    EXPECT_NEAR(total, sum, 1e-4);
    // Near-ties within the 1e-5 zero tolerance may be taken as ties: allow that much per pair.
    EXPECT_NEAR(total, brute_force_min(cost), 1e-5 * 4 * std::min(n, m) + 1e-5 * std::fabs(total));
  }
}

TEST(Hungarian, TiesGoToTheLowestIndexInScanOrderAndEmptyShapes) {
  std::vector<int> a;
  // All equal: every row takes the first free column; with more rows than columns the first
  // rows win and the rest stay unassigned.
  Matrix wide(3, std::vector<float>(5, 2.0f));
  EXPECT_FLOAT_EQ(solveAssignment(wide, a), 6.0f);
  EXPECT_EQ(a, (std::vector<int>{0, 1, 2}));
  Matrix tall(5, std::vector<float>(2, 2.0f));
  EXPECT_FLOAT_EQ(solveAssignment(tall, a), 4.0f);
  EXPECT_EQ(a, (std::vector<int>{0, 1, -1, -1, -1}));

  // 5e-6 above the row minimum counts as zero, so the earlier column is starred; a solver
  // with an exact zero test would take column 1.
  Matrix nearTie = {{1.000005f, 1.0f}};
  EXPECT_FLOAT_EQ(solveAssignment(nearTie, a), 1.000005f);
  EXPECT_EQ(a, (std::vector<int>{0}));
  // 2e-5 above is a real difference.
  Matrix apart = {{1.00002f, 1.0f}};
  solveAssignment(apart, a);
  EXPECT_EQ(a, (std::vector<int>{1}));

  // Shapes the random matrices never take (they have a row and a column at least).
  Matrix noColumns(3);
  EXPECT_EQ(solveAssignment(noColumns, a), 0.0f);
  EXPECT_EQ(a, (std::vector<int>{-1, -1, -1}));

  Matrix empty;
  EXPECT_EQ(solveAssignment(empty, a), 0.0f);
  EXPECT_TRUE(a.empty());
}

TEST(Hungarian, RejectsBadMatricesAndKeepsTheAssignment) {
  const std::vector<int> before = {5, 6};
  struct Case {
    Matrix cost;
    const char* message;
  } cases[] = {
      {{{1.0f, -0.000001f}, {2.0f, 3.0f}}, "ERROR: All matrix elements have to be non-negative.\n"},
      {{{1.0f, NAN}, {2.0f, 3.0f}}, "finite"},
      {{{1.0f, INFINITY}, {2.0f, 3.0f}}, "finite"},
      {{{1.0f, 2.0f}, {3.0f}}, "row 1 has 1 elements, row 0 has 2"},
  };
  for (auto& c : cases) {
    std::vector<int> a = before;
    testing::internal::CaptureStderr();
    float total = solveAssignment(c.cost, a);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(total, -1.0f);
    EXPECT_EQ(a, before);
    if (c.message[0] == 'E')  // the bare line, no source prefix
      EXPECT_EQ(err, c.message);
    else
      EXPECT_NE(err.find(c.message), std::string::npos) << err;
  }
}

}  // namespace
