#include "field/line_transforms.h"

#include <climits>
#include <new>
#include <stdexcept>
#include <string>

namespace nmr::field::detail {

namespace {

// FFTW_ESTIMATE: the plan depends on the length alone, never on a timing. FFTW_NO_SIMD has
// no effect in long double (there are no such codelets) and is kept to say that none may
// be used. FFTW_DESTROY_INPUT lets the complex-to-real plan use its input as scratch.
constexpr unsigned kPlanFlags = FFTW_ESTIMATE | FFTW_NO_SIMD;

int lengthOf(std::size_t n) {
    if (n == 0 || n > static_cast<std::size_t>(INT_MAX))
        throw std::length_error("FFT length out of range: " + std::to_string(n));
    return static_cast<int>(n);
}

template <typename T>
T* allocate(std::size_t count) {
    void* memory = fftwl_malloc(sizeof(T) * count);
    if (memory == nullptr) throw std::bad_alloc();
    return static_cast<T*>(memory);
}

void checkPlan(const void* plan, std::size_t n) {
    if (plan == nullptr)
        throw std::runtime_error("FFTW could not plan a transform of length " + std::to_string(n));
}

}  // namespace

std::mutex& plannerLock() {
    static std::mutex lock;
    return lock;
}

RealLine::RealLine(std::size_t n) {
    const int length = lengthOf(n);
    const std::lock_guard<std::mutex> planning(plannerLock());
    try {
        real_ = allocate<Wide>(n);
        spectrum_ = allocate<fftwl_complex>(n / 2 + 1);
        forward_ = fftwl_plan_dft_r2c_1d(length, real_, spectrum_, kPlanFlags);
        checkPlan(forward_, n);
        backward_ =
            fftwl_plan_dft_c2r_1d(length, spectrum_, real_, kPlanFlags | FFTW_DESTROY_INPUT);
        checkPlan(backward_, n);
    } catch (...) {
        if (forward_ != nullptr) fftwl_destroy_plan(forward_);
        fftwl_free(real_);
        fftwl_free(spectrum_);
        throw;
    }
}

RealLine::~RealLine() {
    const std::lock_guard<std::mutex> planning(plannerLock());
    fftwl_destroy_plan(forward_);
    fftwl_destroy_plan(backward_);
    fftwl_free(real_);
    fftwl_free(spectrum_);
}

ComplexLine::ComplexLine(std::size_t n) {
    const int length = lengthOf(n);
    const std::lock_guard<std::mutex> planning(plannerLock());
    try {
        data_ = allocate<fftwl_complex>(n);
        forward_ = fftwl_plan_dft_1d(length, data_, data_, FFTW_FORWARD, kPlanFlags);
        checkPlan(forward_, n);
        backward_ = fftwl_plan_dft_1d(length, data_, data_, FFTW_BACKWARD, kPlanFlags);
        checkPlan(backward_, n);
    } catch (...) {
        if (forward_ != nullptr) fftwl_destroy_plan(forward_);
        fftwl_free(data_);
        throw;
    }
}

ComplexLine::~ComplexLine() {
    const std::lock_guard<std::mutex> planning(plannerLock());
    fftwl_destroy_plan(forward_);
    fftwl_destroy_plan(backward_);
    fftwl_free(data_);
}

}  // namespace nmr::field::detail
