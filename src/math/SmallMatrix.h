#pragma once
// Dense kernels for the k x k matrices of the state: products, LU
// factorisation with partial pivoting, solves and the inverse. They follow the
// loop order of the reference BLAS and LAPACK routines of the same names, with
// leading dimension n, and allocate nothing.
//
// The optimised BLAS stays in charge of everything of size p; for these tiny
// matrices a library call costs more than its arithmetic, and its shared work
// buffers would make the threads of the thread mode wait for each other.

// C = alpha op(A) op(B) + beta C, all n x n; trans_a and trans_b are 'N' or 'T'.
void Small_gemm(char trans_a, char trans_b, int n, double alpha, const double* A, const double* B,
                double beta, double* C);

// LU factorisation in place, rows swapped as recorded in ipiv (1-based, as
// LAPACK records them). A zero pivot is left in place, as LAPACK leaves it.
void Small_getrf(int n, double* A, int* ipiv);

// Solves op(A) X = B for nrhs columns of B (leading dimension ldb) with the
// factors of Small_getrf; trans is 'N' or 'T'.
void Small_getrs(char trans, int n, int nrhs, const double* LU, const int* ipiv, double* B,
                 int ldb);

// A = A^-1 by its LU factors; work holds n * n doubles.
void Small_inverse(double* A, int n, int* ipiv, double* work);
