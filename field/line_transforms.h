#pragma once

#include <fftw3.h>

#include <complex>
#include <cstddef>
#include <mutex>

namespace nmr::field::detail {

// The transforms run in FFTW's long-double library, one line at a time, so that the field
// has the same bits on every x86-64 machine and at every process count:
// - FFTW's double library takes its twiddle factors from the C library's sincos, and glibc
//   chooses that function at load time by CPU (a fused multiply-add build or a plain one).
//   The two differ in the last bit for some angles: 64 of the 316 FFT lengths up to 8192
//   with no prime factor above 7 gave different transforms on one machine with FMA masked
//   off (GLIBC_TUNABLES). The long-double library uses sincosl, one software routine on x87
//   arithmetic, which has neither fused nor vector variants.
// - The double library also picks SIMD codelets by CPU at run time, and its 3-D MPI plans
//   choose local transforms by slab size; long double has no SIMD codelets, and a plan of
//   one length executed on its own buffers does the same arithmetic for every line.
// The price is time: a long-double transform takes about seven times as long as a scalar
// double one.
using Wide = long double;
using WideComplex = std::complex<Wide>;

// FFTW's planner is not thread-safe; plans are made and destroyed under this lock (the
// Python module may compute fields in several threads).
std::mutex& plannerLock();

// Real-to-complex and back, length n: real() holds n values, spectrum() n / 2 + 1.
class RealLine {
public:
    explicit RealLine(std::size_t n);
    ~RealLine();
    RealLine(const RealLine&) = delete;
    RealLine& operator=(const RealLine&) = delete;

    Wide* real() { return real_; }
    WideComplex* spectrum() { return reinterpret_cast<WideComplex*>(spectrum_); }
    // real() -> spectrum(), unnormalised.
    void forward() { fftwl_execute(forward_); }
    // spectrum() -> real(), unnormalised; spectrum() is overwritten.
    void backward() { fftwl_execute(backward_); }

private:
    Wide* real_ = nullptr;
    fftwl_complex* spectrum_ = nullptr;
    fftwl_plan forward_ = nullptr;
    fftwl_plan backward_ = nullptr;
};

// Complex-to-complex in place, length n, both directions unnormalised.
class ComplexLine {
public:
    explicit ComplexLine(std::size_t n);
    ~ComplexLine();
    ComplexLine(const ComplexLine&) = delete;
    ComplexLine& operator=(const ComplexLine&) = delete;

    WideComplex* data() { return reinterpret_cast<WideComplex*>(data_); }
    void forward() { fftwl_execute(forward_); }
    void backward() { fftwl_execute(backward_); }

private:
    fftwl_complex* data_ = nullptr;
    fftwl_plan forward_ = nullptr;
    fftwl_plan backward_ = nullptr;
};

}  // namespace nmr::field::detail
