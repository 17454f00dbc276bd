#pragma once
// The BLAS and LAPACK routines in use, through their reference Fortran
// interface: every argument by address, 32-bit integers, column-major storage.
// Character arguments carry the hidden length that gfortran passes after the
// last ordinary argument; the defaults let callers leave them out.

#include <cstddef>

extern "C" {

void dgemm_(const char* transa, const char* transb, const int* m, const int* n, const int* k,
            const double* alpha, const double* a, const int* lda, const double* b, const int* ldb,
            const double* beta, double* c, const int* ldc, std::size_t transa_len = 1,
            std::size_t transb_len = 1);
void dgemv_(const char* trans, const int* m, const int* n, const double* alpha, const double* a,
            const int* lda, const double* x, const int* incx, const double* beta, double* y,
            const int* incy, std::size_t trans_len = 1);
void dger_(const int* m, const int* n, const double* alpha, const double* x, const int* incx,
           const double* y, const int* incy, double* a, const int* lda);
void daxpy_(const int* n, const double* alpha, const double* x, const int* incx, double* y,
            const int* incy);
void dscal_(const int* n, const double* alpha, double* x, const int* incx);
void dcopy_(const int* n, const double* x, const int* incx, double* y, const int* incy);

void dgetrf_(const int* m, const int* n, double* a, const int* lda, int* ipiv, int* info);
void dgetri_(const int* n, double* a, const int* lda, const int* ipiv, double* work,
             const int* lwork, int* info);
void dgetrs_(const char* trans, const int* n, const int* nrhs, const double* a, const int* lda,
             const int* ipiv, double* b, const int* ldb, int* info, std::size_t trans_len = 1);
void dgesvd_(const char* jobu, const char* jobvt, const int* m, const int* n, double* a,
             const int* lda, double* s, double* u, const int* ldu, double* vt, const int* ldvt,
             double* work, const int* lwork, int* info, std::size_t jobu_len = 1,
             std::size_t jobvt_len = 1);

// OpenBLAS: the number of threads of its own that a call may use.
void openblas_set_num_threads(int num_threads);
}

namespace tarn::blas {

// Constants handed to the routines above by address.
inline constexpr double kOne = 1.0;
inline constexpr double kZero = 0.0;
inline constexpr int kIncOne = 1;
inline constexpr int kIncZero = 0;

}  // namespace tarn::blas
