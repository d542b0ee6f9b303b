#include <QTest>

#include <cmath>
#include <numbers>

#include "ui/preview/spring.h"

using namespace orvane;

namespace {
// Steps at 60 frames a second until settled; returns the seconds taken, or -1.
double runUntilSettled(Spring& spring, double limit = 10.0)
{
    const double frame = 1.0 / 60.0;
    for (double t = 0; t < limit; t += frame) {
        if (spring.isSettled())
            return t;
        spring.step(frame);
    }
    return spring.isSettled() ? limit : -1.0;
}
} // namespace

class SpringTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void restsWhereItStarts()
    {
        Spring spring(3.0);
        QVERIFY(spring.isSettled());
        spring.step(0.1);
        QCOMPARE(spring.value(), 3.0);
        spring.retarget(3.0, 0.4, 0.8);
        QVERIFY(spring.isSettled());
    }

    void settlesOnTarget_data()
    {
        QTest::addColumn<double>("response");
        QTest::addColumn<double>("damping");
        QTest::newRow("content change 0.4/0.8") << 0.4 << 0.8;
        QTest::newRow("reveal 0.55/0.72") << 0.55 << 0.72;
        QTest::newRow("critical") << 0.3 << 1.0;
        QTest::newRow("overdamped") << 0.3 << 1.6;
    }

    void settlesOnTarget()
    {
        QFETCH(double, response);
        QFETCH(double, damping);
        Spring spring(0.0);
        spring.retarget(1.0, response, damping);
        QVERIFY(!spring.isSettled());
        spring.step(1.0 / 60.0);
        QVERIFY(spring.value() > 0.0 && spring.value() < 0.5);
        QVERIFY(spring.velocity() > 0.0);
        const double took = runUntilSettled(spring);
        QVERIFY2(took > 0.0, "never settled");
        // Settled means exactly on the target and still, in a few responses at most.
        QCOMPARE(spring.value(), 1.0);
        QCOMPARE(spring.velocity(), 0.0);
        QVERIFY2(took < 6 * response, qPrintable(QString::number(took)));
    }

    void matchesTheSpringEquation_data()
    {
        QTest::addColumn<double>("fraction");
        QTest::newRow("underdamped 0.72") << 0.72;
        QTest::newRow("underdamped 0.8") << 0.8;
        QTest::newRow("critical") << 1.0;
        QTest::newRow("overdamped") << 1.5;
    }

    void matchesTheSpringEquation()
    {
        // Integrate x'' = −k(x − target) − c x' with tiny Euler steps and compare:
        // stiffness (2π/response)², damping 4π·fraction/response, unit mass.
        QFETCH(double, fraction);
        const double response = 0.4;
        const double k = std::pow(2 * std::numbers::pi / response, 2);
        const double c = 4 * std::numbers::pi * fraction / response;
        const double h = 1.0 / 60.0 / 2000.0;
        Spring fromRest(10.0);
        fromRest.retarget(2.0, response, fraction);
        double x = 10.0;
        double v = 0.0;
        for (int frame = 1; frame <= 30; ++frame) {
            for (int i = 0; i < 2000; ++i) {
                const double a = -k * (x - 2.0) - c * v;
                v += a * h;
                x += v * h;
            }
            fromRest.step(1.0 / 60.0);
            QVERIFY2(qAbs(fromRest.value() - x) < 1e-3,
                     qPrintable(QString("frame %1: %2 vs %3").arg(frame).arg(fromRest.value()).arg(x)));
            QVERIFY(qAbs(fromRest.velocity() - v) < 1e-2);
        }
    }

    void frameLengthDoesNotChangeThePath()
    {
        Spring a(0.0);
        Spring b(0.0);
        a.retarget(100.0, 0.55, 0.72);
        b.retarget(100.0, 0.55, 0.72);
        for (int i = 0; i < 12; ++i)
            a.step(1.0 / 120.0);
        for (int i = 0; i < 3; ++i)
            b.step(1.0 / 30.0);
        QVERIFY(qAbs(a.value() - b.value()) < 1e-9);
        QVERIFY(qAbs(a.velocity() - b.velocity()) < 1e-9);
    }

    void retargetKeepsPositionAndVelocity()
    {
        Spring spring(0.0);
        spring.retarget(100.0, 0.55, 0.72);
        for (int i = 0; i < 6; ++i)
            spring.step(1.0 / 60.0);
        const double value = spring.value();
        const double velocity = spring.velocity();
        QVERIFY(velocity > 0.0);

        // Mid-flight the target moves back; the motion continues from where it was,
        // at the same speed, and only then turns round.
        spring.retarget(20.0, 0.4, 0.8);
        QCOMPARE(spring.value(), value);
        QCOMPARE(spring.velocity(), velocity);

        const double tiny = 1e-4;
        spring.step(tiny);
        QVERIFY(qAbs(spring.value() - (value + velocity * tiny)) < 1e-3);
        QVERIFY(spring.value() > value); // still going up just after the change
        QVERIFY(runUntilSettled(spring) > 0.0);
        QCOMPARE(spring.value(), 20.0);

        // A reset jumps and stops.
        spring.retarget(50.0, 0.4, 0.8);
        spring.step(0.05);
        spring.reset(7.0);
        QVERIFY(spring.isSettled());
        QCOMPARE(spring.value(), 7.0);
        QCOMPARE(spring.target(), 7.0);
    }

    void degenerateParameters()
    {
        // No response: jump at once.
        Spring instant(0.0);
        instant.retarget(5.0, 0.0, 0.8);
        QVERIFY(instant.isSettled());
        QCOMPARE(instant.value(), 5.0);

        // A target that is not a number is ignored: the spring stays where it is.
        Spring nan(1.0);
        nan.retarget(std::nan(""), 0.4, 0.8);
        QVERIFY(nan.isSettled());
        QCOMPARE(nan.value(), 1.0);

        // Negative or zero frame lengths do nothing.
        Spring still(0.0);
        still.retarget(1.0, 0.4, 0.8);
        still.step(-1.0);
        still.step(0.0);
        QCOMPARE(still.value(), 0.0);

        // A very long frame lands on the target instead of blowing up.
        Spring longFrame(0.0);
        longFrame.retarget(1.0, 0.4, 0.8);
        longFrame.step(60.0);
        QVERIFY(longFrame.isSettled());
        QCOMPARE(longFrame.value(), 1.0);

        // The settle distance decides when it comes to rest.
        Spring coarse(0.0);
        coarse.setSettleDistance(0.1);
        coarse.retarget(1.0, 0.4, 1.0);
        Spring fine(0.0);
        fine.setSettleDistance(1e-6);
        fine.retarget(1.0, 0.4, 1.0);
        QVERIFY(runUntilSettled(coarse) < runUntilSettled(fine));
    }
};

QTEST_GUILESS_MAIN(SpringTest)
#include "springtest.moc"
