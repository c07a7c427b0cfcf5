#include "sensing/StayDetector.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "sensing/SensingFakes.h"

namespace rovalis {
namespace {

constexpr double start = 1700000000.0;

class RecordingStayDelegate final : public StayDetectorDelegate {
public:
    void didDetectStay(const Location& center) override { centers.push_back(center); }
    std::vector<Location> centers;
};

class StayDetectorTest : public ::testing::Test {
protected:
    StayDetectorTest() { makeDetector(600.0); }
    void makeDetector(double timeLimit) {
        detector = std::make_unique<StayDetector>(timeLimit);
        detector->setDelegate(delegate);
    }
    // The fix `metres` north of the origin, `seconds` after the start.
    Location at(double metres, double seconds) const { return test::moved(origin, metres, 0.0, Date{start + seconds}); }
    std::size_t clusterSize() const { return detector->cluster() ? detector->cluster()->locations().size() : 0; }

    const Location origin = test::fixAt(52.52, 13.405, 10.0, Date{start});
    std::shared_ptr<RecordingStayDelegate> delegate = std::make_shared<RecordingStayDelegate>();
    std::unique_ptr<StayDetector> detector;
};

TEST_F(StayDetectorTest, TheSecondFixIsMeasuredUnsmoothedAndLaterOnesAtThreeQuartersOfTheirPosition) {
    detector->processLocation(origin);
    EXPECT_EQ(detector->cluster()->center(), origin);
    EXPECT_FALSE(detector->currentLocation());

    const Location second = at(140.0, 5.0), third = at(100.0, 10.0);
    detector->processLocation(second);
    EXPECT_EQ(detector->currentLocation(), second);
    EXPECT_EQ(detector->cluster()->center().coordinate.latitude,
              (origin.coordinate.latitude + second.coordinate.latitude) / 2.0);
    detector->processLocation(third);
    EXPECT_EQ(detector->currentLocation()->coordinate,
              (LocationCoordinate2D{0.75 * third.coordinate.latitude + 0.25 * second.coordinate.latitude,
                                    0.75 * third.coordinate.longitude + 0.25 * second.coordinate.longitude}));
    EXPECT_EQ(detector->cluster()->locations().back(), third);  // the raw fix joins, not the smoothed one
}

TEST_F(StayDetectorTest, AFixExactlyAtTheDistanceLimitJoinsAndOneJustBeyondStartsANewCluster) {
    // On the equator, the longitude whose geodesic distance from (0, 0) is exactly 150 m.
    const Location zero = test::fixAt(0.0, 0.0, 10.0, Date{start});
    Location exact = zero;
    exact.coordinate.longitude = 150.0 / 6378137.0 * 180.0 / std::numbers::pi;
    for (int step = 0; step < 100000 && zero.distanceFrom(exact) != 150.0; ++step) {
        exact.coordinate.longitude = std::nextafter(exact.coordinate.longitude,
                                                     zero.distanceFrom(exact) < 150.0 ? 1.0 : 0.0);
    }
    ASSERT_EQ(zero.distanceFrom(exact), 150.0);
    Location beyond = exact;
    while (!(zero.distanceFrom(beyond) > 150.0)) {
        beyond.coordinate.longitude = std::nextafter(beyond.coordinate.longitude, 1.0);
    }

    for (const Location& fix : {zero, exact}) detector->processLocation(fix);
    EXPECT_EQ(clusterSize(), 2u);
    detector->resetCluster();
    detector->resetCurrentLocation();
    for (const Location& fix : {zero, beyond}) detector->processLocation(fix);
    EXPECT_EQ(clusterSize(), 1u);
    EXPECT_EQ(detector->cluster()->center(), beyond);
}

TEST_F(StayDetectorTest, AStayIsReportedOnlyOnceTheSpanExceedsTheLimitAndThenEverythingStartsAfresh) {
    for (const double limit : {600.0, 15.0}) {
        SCOPED_TRACE(limit);
        makeDetector(limit);
        delegate->centers.clear();
        const Location fixes[] = {at(0.0, 0.0), at(40.0, limit / 2), at(-20.0, limit), at(10.0, limit + 0.5)};
        for (int i = 0; i < 3; ++i) detector->processLocation(fixes[i]);
        EXPECT_TRUE(delegate->centers.empty()) << "a span of exactly the limit is no stay";
        detector->processLocation(fixes[3]);
        ASSERT_EQ(delegate->centers.size(), 1u);
        double latitudes = 0.0;
        for (const Location& fix : fixes) latitudes += fix.coordinate.latitude;
        EXPECT_DOUBLE_EQ(delegate->centers[0].coordinate.latitude, latitudes / 4.0);
        EXPECT_EQ(detector->cluster(), nullptr);
        EXPECT_FALSE(detector->currentLocation());
    }
}

TEST_F(StayDetectorTest, AfterAJumpTheNewClusterStartsAtTheRawFixButTheSmoothedPositionKeepsAQuarterOfThePast) {
    detector->processLocation(at(0.0, 0.0));
    detector->processLocation(at(0.0, 1.0));
    const Location jump = at(1000.0, 2.0);
    detector->processLocation(jump);  // smoothed 750 m north: too far
    EXPECT_EQ(clusterSize(), 1u);
    EXPECT_EQ(detector->cluster()->center(), jump);
    // 180 m beyond the jump, but smoothed only about 72 m from it: it joins.
    detector->processLocation(at(1180.0, 3.0));
    EXPECT_EQ(clusterSize(), 2u);
}

TEST_F(StayDetectorTest, TheCentreFollowsTheFirst999FixesAndThenStaysPut) {
    for (int i = 0; i < 998; ++i) detector->processLocation(at(0.0, 0.0));
    const Location center998 = detector->cluster()->center();
    detector->processLocation(at(90.0, 0.0));
    const Location center999 = detector->cluster()->center();
    EXPECT_GT(center999.coordinate.latitude, center998.coordinate.latitude);
    for (int i = 0; i < 5; ++i) detector->processLocation(at(90.0, 0.0));
    EXPECT_EQ(clusterSize(), 1004u);
    EXPECT_EQ(detector->cluster()->center(), center999);
}

TEST(ClusterDeathTest, TheDurationOfNoFixesIsAProgrammingError) {
    EXPECT_DEATH(Cluster::durationOf({}), "Invalid Cluster size!");
}

}  // namespace
}  // namespace rovalis
