// Optimal assignment (Munkres form of the Hungarian method: starred and primed zeros).
//
// The scan orders below decide which of several equal-cost solutions comes out, and the
// tracker's identities depend on that choice, so they are kept exactly: columns before rows,
// lowest index first, first qualifying zero wins.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "orva/tracker.h"
#include "orva/util.h"

namespace {

// Costs come from float arithmetic (IoU); a fixed tolerance rather than machine epsilon lets
// near-ties count as ties, so the tie-break rules decide instead of rounding noise.
// 1e-5f is the largest float below 1e-5, so this equals |v| widened to double < 1e-5 for
// every float, without the conversion in the innermost loops.
inline bool is_zero(float v) { return std::fabs(v) <= 1e-5f; }

// Column-by-column storage: element (row, col) at row + N * col.
struct Munkres {
  int N, M, minDim;
  float* dist;
  bool* coveredCols;
  bool* coveredRows;
  bool* star;
  bool* newStar;
  bool* prime;

  Munkres(int n, int m) : N(n), M(m), minDim(n < m ? n : m) {
    size_t nm = (size_t)n * m;
    dist = (float*)malloc((nm ? nm : 1) * sizeof(float));
    coveredCols = (bool*)calloc(m ? m : 1, sizeof(bool));
    coveredRows = (bool*)calloc(n ? n : 1, sizeof(bool));
    star = (bool*)calloc(nm ? nm : 1, sizeof(bool));
    newStar = (bool*)calloc(nm ? nm : 1, sizeof(bool));
    prime = (bool*)calloc(nm ? nm : 1, sizeof(bool));
    if (!dist || !coveredCols || !coveredRows || !star || !newStar || !prime) {
      release();
      throw std::bad_alloc();
    }
  }
  ~Munkres() { release(); }
  Munkres(const Munkres&) = delete;
  Munkres& operator=(const Munkres&) = delete;

  void release() {
    free(dist);
    free(coveredCols);
    free(coveredRows);
    free(star);
    free(newStar);
    free(prime);
    dist = nullptr;
    coveredCols = coveredRows = star = newStar = prime = nullptr;
  }

  size_t at(int r, int c) const { return (size_t)r + (size_t)N * c; }

  void reduce_and_star() {
    if (N <= M) {
      for (int r = 0; r < N; r++) {
        float lo = dist[at(r, 0)];
        for (int c = 1; c < M; c++) lo = std::fmin(lo, dist[at(r, c)]);
        for (int c = 0; c < M; c++) dist[at(r, c)] -= lo;
      }
      for (int r = 0; r < N; r++) {
        for (int c = 0; c < M; c++) {
          if (is_zero(dist[at(r, c)]) && !coveredCols[c]) {
            star[at(r, c)] = true;
            coveredCols[c] = true;
            break;
          }
        }
      }
    } else {
      for (int c = 0; c < M; c++) {
        float* col = dist + at(0, c);
        float lo = col[0];
        for (int r = 1; r < N; r++) lo = std::fmin(lo, col[r]);
        for (int r = 0; r < N; r++) col[r] -= lo;
      }
      for (int c = 0; c < M; c++) {
        for (int r = 0; r < N; r++) {
          if (is_zero(dist[at(r, c)]) && !coveredRows[r]) {
            star[at(r, c)] = true;
            coveredCols[c] = true;
            coveredRows[r] = true;
            break;
          }
        }
      }
      memset(coveredRows, 0, N * sizeof(bool));
    }
  }

  // Covers the columns holding a star; true when they make a complete assignment.
  bool cover_starred_columns() {
    int covered = 0;
    for (int c = 0; c < M; c++) {
      coveredCols[c] = false;
      const bool* col = star + at(0, c);
      for (int r = 0; r < N; r++) {
        if (col[r]) {
          coveredCols[c] = true;
          break;
        }
      }
      covered += coveredCols[c];
    }
    return covered == minDim;
  }

  int star_in_row(int r) const {
    for (int c = 0; c < M; c++)
      if (star[at(r, c)]) return c;
    return -1;
  }

  // Finds and primes the first uncovered zero, covering rows with a star on the way.
  // Returns false when no uncovered zero is left. Resuming at min(old column, uncovered
  // column) finds the same zero a restart from column 0 would: every column scanned before
  // held no uncovered zero, and covering a row only hides zeros.
  bool prime_uncovered_zero(int& zr, int& zc) {
    int c = 0;
    while (c < M) {
      if (coveredCols[c]) {
        c++;
        continue;
      }
      const float* col = dist + at(0, c);
      int found = -1;
      for (int r = 0; r < N; r++) {
        if (!coveredRows[r] && is_zero(col[r])) {
          found = r;
          break;
        }
      }
      if (found < 0) {
        c++;
        continue;
      }
      prime[at(found, c)] = true;
      int sc = star_in_row(found);
      if (sc < 0) {
        zr = found;
        zc = c;
        return true;
      }
      coveredRows[found] = true;
      coveredCols[sc] = false;
      c = sc < c ? sc : c;
    }
    return false;
  }

  void augment(int zr, int zc) {
    size_t nm = (size_t)N * M;
    memcpy(newStar, star, nm * sizeof(bool));
    newStar[at(zr, zc)] = true;
    int c = zc;
    for (;;) {
      int sr = -1;
      for (int r = 0; r < N; r++) {
        if (star[at(r, c)]) {
          sr = r;
          break;
        }
      }
      if (sr < 0) break;
      newStar[at(sr, c)] = false;
      int pc = 0;
      while (pc < M && !prime[at(sr, pc)]) pc++;
      if (pc == M) break;  // cannot happen: every star's row on the path was primed
      newStar[at(sr, pc)] = true;
      c = pc;
    }
    memset(prime, 0, nm * sizeof(bool));
    memcpy(star, newStar, nm * sizeof(bool));
    memset(coveredRows, 0, N * sizeof(bool));
  }

  void adjust() {
    float h = INFINITY;
    for (int c = 0; c < M; c++) {
      if (coveredCols[c]) continue;
      const float* col = dist + at(0, c);
      for (int r = 0; r < N; r++)
        if (!coveredRows[r] && col[r] < h) h = col[r];
    }
    for (int c = 0; c < M; c++) {
      float* col = dist + at(0, c);
      if (coveredCols[c]) {
        for (int r = 0; r < N; r++)
          if (coveredRows[r]) col[r] += h;
      } else {
        for (int r = 0; r < N; r++)
          if (!coveredRows[r]) col[r] -= h;
      }
    }
  }

  void solve() {
    reduce_and_star();
    while (!cover_starred_columns()) {
      int zr = -1, zc = -1;
      while (!prime_uncovered_zero(zr, zc)) adjust();
      augment(zr, zc);
    }
  }
};

}  // namespace

float solveAssignment(std::vector<std::vector<float>>& cost, std::vector<int>& assignment) {
  const int N = (int)cost.size();
  const int M = N ? (int)cost[0].size() : 0;
  for (int r = 0; r < N; r++) {
    if ((int)cost[r].size() != M) {
      ORVA_ERROR("row %d has %d elements, row 0 has %d", r, (int)cost[r].size(), M);
      return -1.0f;
    }
    for (int c = 0; c < M; c++) {
      float v = cost[r][c];
      if (v < 0) {
        fputs("ERROR: All matrix elements have to be non-negative.\n", stderr);
        return -1.0f;
      }
      // A NaN or an infinity would make the adjust step loop for ever.
      if (!std::isfinite(v)) {
        ORVA_ERROR("All matrix elements have to be finite (row %d, column %d).\n", r, c);
        return -1.0f;
      }
    }
  }

  Munkres m(N, M);
  for (int r = 0; r < N; r++)
    for (int c = 0; c < M; c++) m.dist[m.at(r, c)] = cost[r][c];
  m.solve();

  std::vector<int> result(N, -1);
  float total = 0;
  for (int r = 0; r < N; r++) {
    result[r] = m.star_in_row(r);
    if (result[r] >= 0) total += cost[r][result[r]];
  }
  assignment.clear();
  assignment.insert(assignment.end(), result.begin(), result.end());
  return total;
}
