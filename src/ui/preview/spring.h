// A damped spring that moves one value towards a target.
#pragma once

namespace orvane {

/// A damped harmonic oscillator of unit mass pulling a value towards its
/// target, described like the platform's springs: by its response (the period
/// of the undamped oscillation, in seconds) and its damping fraction (0 never
/// settles, below 1 overshoots a little, 1 is critically damped).
/// Stiffness is (2π / response)², damping 4π × fraction / response.
///
/// The spring is a plain value, stepped by its owner once per frame. Changing
/// the target or the parameters mid-flight keeps the current value and
/// velocity, so a retargeted motion continues without a jump or a kink.
class Spring {
public:
    /// At rest at value.
    explicit Spring(double value = 0.0);

    /// Jumps to value and stops there (target = value, velocity 0).
    void reset(double value);
    /// Pulls towards target from now on with these parameters, keeping the
    /// current value and velocity. A response of 0 or less jumps at once.
    void retarget(double target, double response, double dampingFraction);

    /// Advances the motion by `seconds` (negative counts as 0). The step is the
    /// exact solution of the spring's equation, so any frame length gives the
    /// same path. Comes to rest on the target once within the settle distance
    /// and moving slower than the settle distance per second × 10.
    void step(double seconds);

    double value() const { return m_value; }
    /// Units of value per second.
    double velocity() const { return m_velocity; }
    double target() const { return m_target; }
    double response() const { return m_response; }
    double dampingFraction() const { return m_damping; }
    /// True once resting on the target.
    bool isSettled() const { return m_value == m_target && m_velocity == 0.0; }

    /// How close counts as arrived, in units of value; 0.001 unless set.
    void setSettleDistance(double distance) { m_settleDistance = distance; }
    double settleDistance() const { return m_settleDistance; }

private:
    double m_value = 0.0;
    double m_velocity = 0.0;
    double m_target = 0.0;
    double m_response = 0.5;
    double m_damping = 1.0;
    double m_settleDistance = 0.001;
};

} // namespace orvane
