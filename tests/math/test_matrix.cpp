// The hand-written matrix helpers, the BLAS conventions built on the shared
// constants, and the labelled text form.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "data/Str_readline.h"
#include "math/Matrix.h"
#include "math/blas.h"
#include "text_stream.h"

namespace {

using tarn_test::stream_of;
using tarn_test::text_of;

std::vector<double> product(const std::vector<double>& A, const std::vector<double>& B, int n) {
  std::vector<double> C(static_cast<std::size_t>(n) * n, 0.0);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j)
      for (int k = 0; k < n; ++k) C[i + j * n] += A[i + k * n] * B[k + j * n];
  return C;
}

}  // namespace

TEST(Matrix, IdentityAndDiagonal) {
  std::vector<double> A(9, 7.0);
  Matrix_set_identity(A.data(), 3);
  EXPECT_EQ(A, (std::vector<double>{1, 0, 0, 0, 1, 0, 0, 0, 1}));
  const double v[] = {2.0, -3.0, 0.5};
  A.assign(9, -1.0);
  Matrix_set_diag(A.data(), 3, v, -2.0);
  EXPECT_EQ(A, (std::vector<double>{-4, 0, 0, 0, 6, 0, 0, 0, -1}));
  // Only the n x n block is written.
  std::vector<double> B(5, 9.0);
  Matrix_set_identity(B.data(), 2);
  EXPECT_EQ(B, (std::vector<double>{1, 0, 0, 1, 9}));
}

TEST(Matrix, InverseTimesMatrixIsIdentity) {
  std::mt19937 gen(77u);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  const int n = 4;
  std::vector<double> A(16);
  for (auto& a : A) a = u(gen);
  for (int i = 0; i < n; ++i) A[i + i * n] += 3.0;  // keep it well conditioned
  std::vector<double> inv = A;
  std::vector<int> ipiv(n);
  std::vector<double> work(64 * n);
  Matrix_inverse(inv.data(), n, ipiv.data(), work.data(), static_cast<int>(work.size()));
  std::vector<double> I(16);
  Matrix_set_identity(I.data(), n);
  const auto left = product(inv, A, n);
  const auto right = product(A, inv, n);
  for (int k = 0; k < 16; ++k) {
    EXPECT_NEAR(left[k], I[k], 1e-12) << k;
    EXPECT_NEAR(right[k], I[k], 1e-12) << k;
  }
}

TEST(Matrix, SingularInverseIsSilent) {
  // Redirect the process's standard error to catch anything the library prints.
  std::FILE* err = std::tmpfile();
  std::fflush(stderr);
  const int saved = dup(2);
  dup2(fileno(err), 2);
  std::vector<double> A{1, 2, 3, 2, 4, 6, 0, 1, 1};  // two proportional columns
  std::vector<int> ipiv(3);
  std::vector<double> work(64);
  Matrix_inverse(A.data(), 3, ipiv.data(), work.data(), 64);
  std::fflush(stderr);
  dup2(saved, 2);
  close(saved);
  EXPECT_EQ(text_of(err), "");
  std::fclose(err);
}

TEST(Matrix, LogAbsDiagOfLuIsLogAbsDet) {
  // [[0 3 1] [2 1 4] [1 0 5]]: det = -19 by cofactors along the first row,
  // and the zero first pivot forces a row swap.
  std::vector<double> A{0, 2, 1, 3, 1, 0, 1, 4, 5};
  int n = 3, info = 0;
  std::vector<int> ipiv(3);
  dgetrf_(&n, &n, A.data(), &n, ipiv.data(), &info);
  EXPECT_NEAR(Matrix_log_abs_diag(A.data(), n), std::log(19.0), 1e-13);
}

TEST(Matrix, DcopyWithZeroIncrementFills) {
  const int n = 6;
  const double value = -2.75;
  std::vector<double> y(n + 1, 1.0);
  dcopy_(&n, &value, &Matrix_INT_ZERO, y.data(), &Matrix_INT_ONE);
  EXPECT_EQ(y, (std::vector<double>{-2.75, -2.75, -2.75, -2.75, -2.75, -2.75, 1.0}));
}

TEST(Matrix, LabelledFormWritesRowsAndReadsThemBack) {
  std::FILE* fp = std::tmpfile();
  const double one = -0.125;
  Matrix_write_labelled(fp, "one", &one, 1, 1);
  // A 3 x 2 matrix: (i, j) at i + 3 j, each value naming its place.
  const std::vector<double> P{0.5, 10.5, 20.5, 1.25, -11.25, 21.25};
  Matrix_write_labelled(fp, "SSM::H", P.data(), 3, 2);
  EXPECT_EQ(text_of(fp),
            "one\t1\t1\n-0.125000000000000000\n\n"
            "SSM::H\t3\t2\n"
            "0.500000000000000000\t1.250000000000000000\n"
            "10.500000000000000000\t-11.250000000000000000\n"
            "20.500000000000000000\t21.250000000000000000\n\n");

  std::rewind(fp);
  std::string line;
  double back_one = 0.0;
  std::vector<double> back(6, 0.0);
  ASSERT_EQ(Str_readline(fp, line), 0);
  EXPECT_EQ(Matrix_read_rows(fp, line, &back_one, 1, 1), 0);
  ASSERT_EQ(Str_readline(fp, line), 0);
  EXPECT_EQ(line, "");
  ASSERT_EQ(Str_readline(fp, line), 0);
  EXPECT_EQ(line, "SSM::H\t3\t2");
  EXPECT_EQ(Matrix_read_rows(fp, line, back.data(), 3, 2), 0);
  EXPECT_EQ(back_one, one);
  EXPECT_EQ(back, P);
  std::fclose(fp);
}

TEST(Matrix, ReadRowsCellRules) {
  std::vector<double> A(4, 0.0);
  std::string line;
  // Extra cells are ignored; CRLF endings are accepted.
  std::FILE* fp = stream_of("1\t2\t99\r\n3\t4\t5\t6\r\n");
  EXPECT_EQ(Matrix_read_rows(fp, line, A.data(), 2, 2), 0);
  EXPECT_EQ(A, (std::vector<double>{1, 3, 2, 4}));
  std::fclose(fp);

  fp = stream_of("1\t2\n3\n");
  EXPECT_EQ(Matrix_read_rows(fp, line, A.data(), 2, 2), -1);
  std::fclose(fp);

  // At the end of input the last line read is converted again.
  fp = stream_of("7\t8\n");
  EXPECT_EQ(Matrix_read_rows(fp, line, A.data(), 2, 2), 0);
  EXPECT_EQ(A, (std::vector<double>{7, 7, 8, 8}));
  std::fclose(fp);

  // A vector is one element per line; a number followed by text gives the number.
  fp = stream_of("1.5x\n-inf\n");
  EXPECT_EQ(Matrix_read_rows(fp, line, A.data(), 2, 1), 0);
  EXPECT_EQ(A[0], 1.5);
  EXPECT_EQ(A[1], -INFINITY);
  std::fclose(fp);
}
