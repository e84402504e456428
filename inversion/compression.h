#pragma once

#include <Eigen/Dense>

namespace nmr::inversion {

// Singular values of a kernel smaller than this fraction of its largest are dropped. A
// component that a kernel passes at 1e-4 of its strongest stays below a noise of 1 % of
// the signal unless its amplitude is a hundred times the signal's; keeping it would only
// let the solve chase noise.
inline constexpr double kRelativeSingularValueCut = 1e-4;

// One kernel's truncated SVD, K ~ U S V^T over the kept singular values.
struct KernelFactor {
    Eigen::MatrixXd u;  // samples x kept, orthonormal columns
    Eigen::VectorXd s;  // kept singular values, descending
    Eigen::MatrixXd a;  // kept x axis: U^T K, which is S V^T
};

// Thin SVD of k itself (never of K^T K, which would square its condition) keeping the
// singular values >= relativeCut times the largest. Throws nmr::Exception when k has no
// positive singular value: no axis value is seen by any sample.
KernelFactor factorKernel(const Eigen::MatrixXd& k, double relativeCut);

// The data M (N1 x N2) ~ K1 F K2^T projected on the kept singular vectors of both
// kernels. A map F (n1 x n2) is a vector f = vec(F) in column-major order, index
// p + n1 q; the compressed data m = vec(U1^T M U2), index i + s1 j; and
// m ~ kernel * f with kernel = A2 (x) A1, of size s1 s2 x n1 n2. The full kernel
// (N1 N2 x n1 n2, 6 GB for 30 x 10^4 data and a 50 x 50 map) is never formed.
struct CompressedProblem {
    KernelFactor k1;
    KernelFactor k2;
    Eigen::MatrixXd kernel;
    Eigen::VectorXd data;
    // Sum of squares of the data outside the kept subspace, M - U1 U1^T M U2 U2^T: no map
    // can fit it, so it is noise plus the (negligible) signal of the dropped components.
    double outsideSquares = 0.0;
    // Degrees of freedom of that part: N1 N2 - s1 s2.
    Eigen::Index outsideCount = 0;
};

// Throws nmr::Exception when the data's shape does not match the kernels' rows.
CompressedProblem compressProblem(const Eigen::MatrixXd& k1, const Eigen::MatrixXd& k2,
                                  const Eigen::MatrixXd& data, double relativeCut);

}  // namespace nmr::inversion
