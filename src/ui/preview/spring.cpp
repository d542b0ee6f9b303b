#include "ui/preview/spring.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace orvane {

Spring::Spring(double value)
    : m_value(value)
    , m_target(value)
{
}

void Spring::reset(double value)
{
    m_value = value;
    m_target = value;
    m_velocity = 0.0;
}

void Spring::retarget(double target, double response, double dampingFraction)
{
    m_target = target;
    m_response = response;
    m_damping = std::isfinite(dampingFraction) ? std::max(0.0, dampingFraction) : 1.0;
    if (!(response > 0.0) || !std::isfinite(target)) {
        if (std::isfinite(target))
            m_value = target;
        else
            m_target = m_value;
        m_velocity = 0.0;
    }
}

void Spring::step(double seconds)
{
    if (isSettled())
        return;
    if (!(seconds > 0.0))
        return;

    // Solve x'' + 2ζω x' + ω² x = 0 for the offset from the target in closed form.
    const double omega = 2.0 * std::numbers::pi / m_response;
    const double zeta = m_damping;
    const double x0 = m_value - m_target;
    const double v0 = m_velocity;
    const double t = seconds;
    double x = 0.0;
    double v = 0.0;

    if (zeta < 1.0) {
        const double wd = omega * std::sqrt(1.0 - zeta * zeta);
        const double decay = std::exp(-zeta * omega * t);
        const double a = x0;
        const double b = (v0 + zeta * omega * x0) / wd;
        const double c = std::cos(wd * t);
        const double s = std::sin(wd * t);
        x = decay * (a * c + b * s);
        v = decay * ((b * wd - zeta * omega * a) * c - (a * wd + zeta * omega * b) * s);
    } else if (zeta == 1.0) {
        const double decay = std::exp(-omega * t);
        const double b = v0 + omega * x0;
        x = decay * (x0 + b * t);
        v = decay * (b - omega * (x0 + b * t));
    } else {
        const double root = omega * std::sqrt(zeta * zeta - 1.0);
        const double r1 = -zeta * omega + root;
        const double r2 = -zeta * omega - root;
        const double c2 = (v0 - r1 * x0) / (r2 - r1);
        const double c1 = x0 - c2;
        const double e1 = std::exp(r1 * t);
        const double e2 = std::exp(r2 * t);
        x = c1 * e1 + c2 * e2;
        v = c1 * r1 * e1 + c2 * r2 * e2;
    }

    m_value = m_target + x;
    m_velocity = v;
    if (std::abs(x) < m_settleDistance && std::abs(v) < m_settleDistance * 10.0)
        reset(m_target);
}

} // namespace orvane
