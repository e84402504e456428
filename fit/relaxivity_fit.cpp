#include "fit/relaxivity_fit.h"

#include <Eigen/Dense>
#include <nlopt.hpp>

#include <algorithm>
#include <cmath>
#include <random>

#include "common/exception.h"

namespace nmr::fit {

namespace {

// Step of the finite-difference model of the misfit, in ln(relaxivity): 5 %, small against
// the curvature of a decay in its relaxivities and large against rounding.
constexpr double kStep = 0.05;

std::vector<double> simulatedTimes(const ExpandedHistories& histories, const RecordedRun& run,
                                   unsigned threads) {
    const SurvivalSums sums = survivalSums(histories, run, run.relaxivity, threads);
    const std::size_t kept = keptIntervals(totalSurvival(sums, {}));
    return {run.intervalEndTime.begin(),
            run.intervalEndTime.begin() + static_cast<std::ptrdiff_t>(kept)};
}

// The points of a finite-difference model around u in M dimensions: u itself, u +- h e_i,
// and u + (+-h, +-h) in every pair of axes.
std::vector<std::vector<double>> stencil(const std::vector<double>& u) {
    const std::size_t m = u.size();
    std::vector<std::vector<double>> points = {u};
    for (std::size_t i = 0; i < m; ++i) {
        for (double sign : {1.0, -1.0}) {
            auto p = u;
            p[i] += sign * kStep;
            points.push_back(p);
        }
    }
    for (std::size_t i = 0; i < m; ++i) {
        for (std::size_t j = i + 1; j < m; ++j) {
            for (double si : {1.0, -1.0}) {
                for (double sj : {1.0, -1.0}) {
                    auto p = u;
                    p[i] += si * kStep;
                    p[j] += sj * kStep;
                    points.push_back(p);
                }
            }
        }
    }
    return points;
}

std::vector<double> exponentials(const std::vector<double>& u) {
    std::vector<double> v(u.size());
    for (std::size_t i = 0; i < u.size(); ++i) v[i] = std::exp(u[i]);
    return v;
}

// Index of a stencil point: 1 + 2i (+h e_i), 2 + 2i (-h e_i), then the pairs in order.
std::size_t axisPoint(std::size_t i, bool plus) { return 1 + 2 * i + (plus ? 0 : 1); }
std::size_t pairPoint(std::size_t m, std::size_t i, std::size_t j, bool plusI, bool plusJ) {
    std::size_t index = 1 + 2 * m;
    for (std::size_t a = 0; a < m; ++a)
        for (std::size_t b = a + 1; b < m; ++b) {
            if (a == i && b == j) return index + (plusI ? 0 : 2) + (plusJ ? 0 : 1);
            index += 4;
        }
    return index;
}

// Newton step -H^-1 g of a misfit known at the stencil points; empty when the model is
// not convex there.
std::vector<double> newtonStep(const std::vector<double>& phi, std::size_t m) {
    Eigen::MatrixXd h(m, m);
    Eigen::VectorXd g(m);
    const double h2 = kStep * kStep;
    for (std::size_t i = 0; i < m; ++i) {
        const double plus = phi[axisPoint(i, true)];
        const double minus = phi[axisPoint(i, false)];
        g(static_cast<Eigen::Index>(i)) = (plus - minus) / (2.0 * kStep);
        h(static_cast<Eigen::Index>(i), static_cast<Eigen::Index>(i)) =
            (plus - 2.0 * phi[0] + minus) / h2;
        for (std::size_t j = i + 1; j < m; ++j) {
            const double mixed =
                (phi[pairPoint(m, i, j, true, true)] - phi[pairPoint(m, i, j, true, false)] -
                 phi[pairPoint(m, i, j, false, true)] + phi[pairPoint(m, i, j, false, false)]) /
                (4.0 * h2);
            h(static_cast<Eigen::Index>(i), static_cast<Eigen::Index>(j)) = mixed;
            h(static_cast<Eigen::Index>(j), static_cast<Eigen::Index>(i)) = mixed;
        }
    }
    const Eigen::LLT<Eigen::MatrixXd> factor(h);
    if (factor.info() != Eigen::Success) return {};
    const Eigen::VectorXd step = factor.solve(-g);
    return {step.data(), step.data() + step.size()};
}

// Half the distance between the 16th and the 84th percentile: one standard deviation for
// a normal spread, and not thrown by the odd resample whose misfit is nearly flat in some
// direction, where one Newton step goes far.
double spread(std::vector<double> values) {
    if (values.size() < 2) return 0.0;
    std::sort(values.begin(), values.end());
    auto at = [&values](double q) {
        const double position = q * static_cast<double>(values.size() - 1);
        const auto below = static_cast<std::size_t>(position);
        const std::size_t above = std::min(below + 1, values.size() - 1);
        return values[below] +
               (position - static_cast<double>(below)) * (values[above] - values[below]);
    };
    return 0.5 * (at(0.8413447460685429) - at(0.15865525393145707));
}

}  // namespace

MeasuredWindow::MeasuredWindow(const MeasuredDecay& measured,
                               const std::vector<double>& simulatedTimes) {
    if (simulatedTimes.size() < 2) return;
    first_ = simulatedTimes.front();
    last_ = simulatedTimes.back();
    std::size_t k = 0;
    for (std::size_t j = 0; j < measured.times.size(); ++j) {
        const double t = measured.times[j];
        if (!(t >= first_ && t <= last_)) continue;
        while (k + 2 < simulatedTimes.size() && simulatedTimes[k + 1] < t) ++k;
        const double lo = std::log(simulatedTimes[k]);
        const double hi = std::log(simulatedTimes[k + 1]);
        times_.push_back(t);
        values_.push_back(measured.values[j]);
        source_.push_back(j);
        below_.push_back(k);
        weight_.push_back(hi > lo ? std::clamp((std::log(t) - lo) / (hi - lo), 0.0, 1.0) : 0.0);
    }
}

void MeasuredWindow::interpolate(const std::vector<double>& simulated,
                                 std::vector<double>& out) const {
    out.resize(values_.size());
    for (std::size_t j = 0; j < values_.size(); ++j) {
        const std::size_t k = below_[j];
        out[j] = simulated[k] + weight_[j] * (simulated[k + 1] - simulated[k]);
    }
}

Misfit misfit(const std::vector<double>& simulated, const std::vector<double>& measured) {
    double sd = 0.0, dd = 0.0;
    for (std::size_t j = 0; j < simulated.size(); ++j) {
        sd += simulated[j] * measured[j];
        dd += measured[j] * measured[j];
    }
    Misfit result;
    result.scale = dd > 0.0 ? sd / dd : 0.0;
    // Summed directly rather than as ss - sd^2/dd, which cancels badly near a good fit.
    for (std::size_t j = 0; j < simulated.size(); ++j) {
        const double r = simulated[j] - result.scale * measured[j];
        result.sumOfSquares += r * r;
    }
    return result;
}

RelaxivityFit::RelaxivityFit(const ContactHistories& histories, const RecordedRun& run,
                             const MeasuredDecay& measured, unsigned threads)
    : histories_(expandHistories(histories)),
      run_(run),
      threads_(threads),
      times_(simulatedTimes(histories_, run, threads)),
      window_(measured, times_) {}

MineralValueMap<double> RelaxivityFit::relaxivities(const std::vector<Mineral::Type>& minerals,
                                                    const std::vector<double>& values) const {
    MineralValueMap<double> relaxivity = run_.relaxivity;
    for (std::size_t m = 0; m < minerals.size(); ++m) relaxivity.set(minerals[m], values[m]);
    return relaxivity;
}

std::vector<double> RelaxivityFit::amplitudes(const SurvivalSums& sums,
                                              const MineralValueMap<double>& relaxivity,
                                              const std::vector<double>& chunkWeights) const {
    // The curve is taken as far as the window was laid out for, whatever the relaxivities,
    // so every measured point keeps its two neighbours.
    const std::size_t count = times_.size();
    return decayAmplitudes(totalSurvival(sums, chunkWeights), run_, relaxivity, count);
}

Misfit RelaxivityFit::misfitAt(const MineralValueMap<double>& relaxivity) const {
    const SurvivalSums sums = survivalSums(histories_, run_, relaxivity, threads_);
    std::vector<double> atMeasured;
    window_.interpolate(amplitudes(sums, relaxivity, {}), atMeasured);
    return misfit(atMeasured, window_.values());
}

DecayCurve RelaxivityFit::decayAt(const MineralValueMap<double>& relaxivity) const {
    return reweightedDecay(survivalSums(histories_, run_, relaxivity, threads_), run_, relaxivity,
                           false);
}

RelaxivityFit::LogPoint RelaxivityFit::optimise(const FitRequest& request) const {
    const std::size_t m = request.minerals.size();
    LogPoint best;
    best.lower.resize(m);
    best.upper.resize(m);
    best.u.resize(m);
    for (std::size_t i = 0; i < m; ++i) {
        best.lower[i] = std::log(request.lower[i]);
        best.upper[i] = std::log(request.upper[i]);
        const double start = run_.relaxivity.valueOr(request.minerals[i], 0.0);
        best.u[i] = start > 0.0 ? std::clamp(std::log(start), best.lower[i], best.upper[i])
                                : 0.5 * (best.lower[i] + best.upper[i]);
    }
    struct Objective {
        const RelaxivityFit* self;
        const FitRequest* request;
        int evaluations = 0;
    } objective{this, &request};
    auto evaluate = [](const std::vector<double>& x, std::vector<double>& /*gradient*/,
                       void* data) {
        auto* o = static_cast<Objective*>(data);
        ++o->evaluations;
        return o->self->misfitAt(o->self->relaxivities(o->request->minerals, exponentials(x)))
            .sumOfSquares;
    };
    // BOBYQA needs two or more variables; a single relaxivity goes to Powell's COBYLA,
    // the same family of derivative-free model-based methods.
    nlopt::opt optimiser(m >= 2 ? nlopt::LN_BOBYQA : nlopt::LN_COBYLA, static_cast<unsigned>(m));
    optimiser.set_lower_bounds(best.lower);
    optimiser.set_upper_bounds(best.upper);
    optimiser.set_min_objective(evaluate, &objective);
    optimiser.set_xtol_abs(1e-5);  // 0.001 % of a relaxivity
    optimiser.set_maxeval(600);
    std::vector<double> step(m);
    for (std::size_t i = 0; i < m; ++i)
        step[i] = std::min(0.25, 0.25 * (best.upper[i] - best.lower[i]));
    optimiser.set_initial_step(step);
    double value = 0.0;
    try {
        optimiser.optimize(best.u, value);
    } catch (const nlopt::roundoff_limited&) {
        // The misfit no longer changes at double precision: u holds the best point.
    } catch (const std::exception& e) {
        throw Exception(std::string("The optimiser failed: ") + e.what());
    }
    best.evaluations = objective.evaluations;
    return best;
}

RelaxivityFit::LocalModel RelaxivityFit::localModel(const FitRequest& request,
                                                    const std::vector<double>& u) const {
    LocalModel model;
    model.points = stencil(u);
    for (const auto& p : model.points) {
        model.relaxivity.push_back(relaxivities(request.minerals, exponentials(p)));
        model.sums.push_back(survivalSums(histories_, run_, model.relaxivity.back(), threads_));
    }
    return model;
}

std::vector<double> RelaxivityFit::walkerSpread(const LocalModel& model, const LogPoint& best,
                                                std::uint32_t seed) const {
    const std::size_t m = best.u.size();
    const std::size_t chunks = histories_.chunks.size();
    std::mt19937 random(seed);
    std::uniform_int_distribution<std::size_t> pick(0, chunks > 0 ? chunks - 1 : 0);
    std::vector<std::vector<double>> fitted(m);
    std::vector<double> weights(chunks), atMeasured;
    for (int b = 0; b < kResamples && chunks > 1; ++b) {
        std::fill(weights.begin(), weights.end(), 0.0);
        for (std::size_t c = 0; c < chunks; ++c) weights[pick(random)] += 1.0;
        std::vector<double> phi(model.points.size());
        for (std::size_t p = 0; p < model.points.size(); ++p) {
            window_.interpolate(amplitudes(model.sums[p], model.relaxivity[p], weights),
                                atMeasured);
            phi[p] = misfit(atMeasured, window_.values()).sumOfSquares;
        }
        const auto delta = newtonStep(phi, m);
        if (delta.empty()) continue;
        // A refit stays inside the bounds, as the fit itself does.
        for (std::size_t i = 0; i < m; ++i) {
            fitted[i].push_back(
                std::exp(std::clamp(best.u[i] + delta[i], best.lower[i], best.upper[i])));
        }
    }
    std::vector<double> spreads(m);
    for (std::size_t i = 0; i < m; ++i) spreads[i] = spread(fitted[i]);
    return spreads;
}

std::vector<double> RelaxivityFit::dataVariance(const LocalModel& model,
                                                const Misfit& atBest) const {
    // Gauss-Newton covariance of (ln relaxivities, scale).
    const std::size_t m = (model.points.empty() ? 0 : model.points.front().size());
    const std::size_t n = window_.size();
    Eigen::MatrixXd jacobian(n, m + 1);
    std::vector<double> plus, minus;
    for (std::size_t i = 0; i < m; ++i) {
        const std::size_t up = axisPoint(i, true), down = axisPoint(i, false);
        window_.interpolate(amplitudes(model.sums[up], model.relaxivity[up], {}), plus);
        window_.interpolate(amplitudes(model.sums[down], model.relaxivity[down], {}), minus);
        for (std::size_t j = 0; j < n; ++j) {
            jacobian(static_cast<Eigen::Index>(j), static_cast<Eigen::Index>(i)) =
                (plus[j] - minus[j]) / (2.0 * kStep);
        }
    }
    for (std::size_t j = 0; j < n; ++j) {
        jacobian(static_cast<Eigen::Index>(j), static_cast<Eigen::Index>(m)) = -window_.values()[j];
    }
    // The Gauss-Newton covariance assumes independent residuals. Neighbouring points of a
    // decay often scatter together (a simulated "measurement" always does, since its
    // points share walkers), which shrinks the information n points carry to that of
    // n (1 - r) / (1 + r) independent ones, r the lag-one correlation of the residuals.
    std::vector<double> simulated;
    window_.interpolate(amplitudes(model.sums[0], model.relaxivity[0], {}), simulated);
    double lagged = 0.0, squared = 0.0;
    for (std::size_t j = 0; j < n; ++j) {
        const double r = simulated[j] - atBest.scale * window_.values()[j];
        squared += r * r;
        if (j + 1 < n) {
            lagged += r * (simulated[j + 1] - atBest.scale * window_.values()[j + 1]);
        }
    }
    const double correlation = squared > 0.0 ? std::clamp(lagged / squared, 0.0, 0.99) : 0.0;
    const double residualVariance = n > m + 1
                                        ? atBest.sumOfSquares / static_cast<double>(n - m - 1) *
                                              (1.0 + correlation) / (1.0 - correlation)
                                        : 0.0;
    const Eigen::MatrixXd normal = jacobian.transpose() * jacobian;
    const Eigen::MatrixXd covariance =
        residualVariance * normal.completeOrthogonalDecomposition().pseudoInverse();
    std::vector<double> variances(m);
    for (std::size_t i = 0; i < m; ++i)
        variances[i] = covariance(static_cast<Eigen::Index>(i), static_cast<Eigen::Index>(i));
    return variances;
}

FitResult RelaxivityFit::fit(const FitRequest& request, std::uint32_t seed) const {
    const std::size_t m = request.minerals.size();
    const LogPoint best = optimise(request);
    FitResult result;
    result.value = exponentials(best.u);
    result.relaxivity = relaxivities(request.minerals, result.value);
    result.misfit = misfitAt(result.relaxivity);
    result.atBound.resize(m);
    for (std::size_t i = 0; i < m; ++i) {
        result.atBound[i] = best.u[i] <= best.lower[i] + 1e-6 || best.u[i] >= best.upper[i] - 1e-6;
    }

    const LocalModel model = localModel(request, best.u);
    result.evaluations = best.evaluations + static_cast<int>(model.points.size());
    result.walkerSpread = walkerSpread(model, best, seed);
    const std::vector<double> variances = dataVariance(model, result.misfit);
    result.dataSpread.resize(m);
    result.uncertainty.resize(m);
    for (std::size_t i = 0; i < m; ++i) {
        result.dataSpread[i] = result.value[i] * std::sqrt(std::max(variances[i], 0.0));
        result.uncertainty[i] = std::hypot(result.walkerSpread[i], result.dataSpread[i]);
    }
    return result;
}

}  // namespace nmr::fit
