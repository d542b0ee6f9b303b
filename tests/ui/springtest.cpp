#include <QTest>

#include <cmath>
#include <numbers>

#include "ui/preview/spring.h"

using namespace orvane;

namespace {
// Steps at 60 frames a second until settled; returns the seconds taken, or -1.
double runUntilSettled(Spring& spring, double limit = 10.0)
{
    for (double t = 0; t < limit; t += 1.0 / 60.0) {
        if (spring.isSettled())
            return t;
        spring.step(1.0 / 60.0);
    }
    return spring.isSettled() ? limit : -1.0;
}
} // namespace

class SpringTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void followsTheSpringEquationAndSettles_data()
    {
        QTest::addColumn<double>("response");
        QTest::addColumn<double>("fraction");
        QTest::newRow("content change 0.4/0.8") << 0.4 << 0.8;
        QTest::newRow("reveal 0.55/0.72") << 0.55 << 0.72;
        QTest::newRow("critical") << 0.3 << 1.0;
        QTest::newRow("overdamped") << 0.3 << 1.6;
    }
    void followsTheSpringEquationAndSettles()
    {
        // Integrate x'' = −k(x − target) − c x' with tiny Euler steps and compare:
        // stiffness (2π/response)², damping 4π·fraction/response, unit mass.
        QFETCH(double, response);
        QFETCH(double, fraction);
        const double k = std::pow(2 * std::numbers::pi / response, 2);
        const double c = 4 * std::numbers::pi * fraction / response;
        const double h = 1.0 / 60.0 / 2000.0;
        Spring spring(10.0);
        spring.retarget(2.0, response, fraction);
        QVERIFY(!spring.isSettled());
        double x = 10.0, v = 0.0;
        for (int frame = 1; frame <= 30; ++frame) {
            for (int i = 0; i < 2000; ++i) {
                v += (-k * (x - 2.0) - c * v) * h;
                x += v * h;
            }
            spring.step(1.0 / 60.0);
            QVERIFY2(qAbs(spring.value() - x) < 1e-3,
                     qPrintable(QString("frame %1: %2 vs %3").arg(frame).arg(spring.value()).arg(x)));
            QVERIFY(qAbs(spring.velocity() - v) < 1e-2);
        }
        // Settled means exactly on the target and still, in a few responses at most.
        const double took = runUntilSettled(spring);
        QVERIFY2(took >= 0.0 && 0.5 + took < 6 * response, qPrintable(QString::number(took)));
        QCOMPARE(spring.value(), 2.0);
        QCOMPARE(spring.velocity(), 0.0);
    }

    void retargetKeepsPositionAndVelocity()
    {
        Spring spring(0.0);
        spring.retarget(100.0, 0.55, 0.72);
        for (int i = 0; i < 6; ++i)
            spring.step(1.0 / 60.0);
        const double value = spring.value(), velocity = spring.velocity();
        QVERIFY(velocity > 0.0);
        // Mid-flight the target moves back; the motion continues from where it was,
        // at the same speed, and only then turns round.
        spring.retarget(20.0, 0.4, 0.8);
        QCOMPARE(spring.value(), value);
        QCOMPARE(spring.velocity(), velocity);
        spring.step(1e-4);
        QVERIFY(qAbs(spring.value() - (value + velocity * 1e-4)) < 1e-3);
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
        // At rest where it starts; no response jumps at once; a target that is
        // not a number is ignored.
        Spring spring(3.0);
        spring.step(0.1);
        spring.retarget(3.0, 0.4, 0.8);
        QVERIFY(spring.isSettled());
        spring.retarget(5.0, 0.0, 0.8);
        spring.retarget(std::nan(""), 0.4, 0.8);
        QVERIFY(spring.isSettled());
        QCOMPARE(spring.value(), 5.0);

        // Negative or zero frame lengths do nothing; a very long frame lands on
        // the target instead of blowing up.
        spring.retarget(6.0, 0.4, 0.8);
        spring.step(-1.0);
        spring.step(0.0);
        QCOMPARE(spring.value(), 5.0);
        spring.step(60.0);
        QVERIFY(spring.isSettled());
        QCOMPARE(spring.value(), 6.0);

        // The settle distance decides when it comes to rest.
        Spring coarse(0.0), fine(0.0);
        coarse.setSettleDistance(0.1);
        fine.setSettleDistance(1e-6);
        coarse.retarget(1.0, 0.4, 1.0);
        fine.retarget(1.0, 0.4, 1.0);
        QVERIFY(runUntilSettled(coarse) < runUntilSettled(fine));
    }
};

QTEST_GUILESS_MAIN(SpringTest)
#include "springtest.moc"
