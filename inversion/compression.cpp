#include "inversion/compression.h"

#include <string>

#include "common/exception.h"

namespace nmr::inversion {

KernelFactor factorKernel(const Eigen::MatrixXd& k, double relativeCut) {
    KernelFactor f;
    if (k.rows() == 0 || k.cols() == 0) throw Exception("A kernel needs samples and an axis");
    Eigen::JacobiSVD<Eigen::MatrixXd> svd(k, Eigen::ComputeThinU | Eigen::ComputeThinV);
    const Eigen::VectorXd& s = svd.singularValues();
    if (!(s[0] > 0.0))
        throw Exception("The kernel is zero for every sample: no axis value is seen by the data");
    Eigen::Index kept = 0;
    while (kept < s.size() && s[kept] >= relativeCut * s[0]) ++kept;
    f.s = s.head(kept);
    f.u = svd.matrixU().leftCols(kept);
    f.a.noalias() = f.u.transpose() * k;
    return f;
}

CompressedProblem compressProblem(const Eigen::MatrixXd& k1, const Eigen::MatrixXd& k2,
                                  const Eigen::MatrixXd& data, double relativeCut) {
    if (data.rows() != k1.rows() || data.cols() != k2.rows())
        throw Exception("The data (" + std::to_string(data.rows()) + " x " +
                        std::to_string(data.cols()) + ") do not match the kernels' samples (" +
                        std::to_string(k1.rows()) + " x " + std::to_string(k2.rows()) + ")");
    CompressedProblem p;
    p.k1 = factorKernel(k1, relativeCut);
    p.k2 = factorKernel(k2, relativeCut);
    const Eigen::Index s1 = p.k1.s.size();
    const Eigen::Index s2 = p.k2.s.size();
    const Eigen::Index n1 = k1.cols();
    const Eigen::Index n2 = k2.cols();

    // M U2 first: N1 x s2 is the small side of a 30 x 10^4 data set.
    const Eigen::MatrixXd mu2 = data * p.k2.u;
    const Eigen::MatrixXd compressed = p.k1.u.transpose() * mu2;
    p.data = compressed.reshaped();
    // The part outside, formed explicitly: ||M||^2 - ||U1^T M U2||^2 would lose the noise
    // of clean data to cancellation.
    const Eigen::MatrixXd inside = (p.k1.u * compressed) * p.k2.u.transpose();
    p.outsideSquares = (data - inside).squaredNorm();
    p.outsideCount = data.size() - s1 * s2;

    p.kernel.resize(s1 * s2, n1 * n2);
    for (Eigen::Index q = 0; q < n2; ++q)
        for (Eigen::Index pp = 0; pp < n1; ++pp)
            for (Eigen::Index j = 0; j < s2; ++j)
                p.kernel.col(pp + n1 * q).segment(s1 * j, s1) = p.k2.a(j, q) * p.k1.a.col(pp);
    return p;
}

}  // namespace nmr::inversion
