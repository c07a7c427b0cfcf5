#include "sensing/StayDetector.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <GeographicLib/Geodesic.hpp>

#include "sensing/SensingFakes.h"

namespace rovalis {
namespace {

constexpr double start = 1700000000.0;

struct RecordingStayDelegate final : StayDetectorDelegate {
    void didDetectStay(const Location& center) override { centers.push_back(center); }
    std::vector<Location> centers;
};

class StayDetectorTest : public ::testing::Test {
protected:
    StayDetectorTest() { detector.setDelegate(delegate); }

    // The fix `metres` north of the origin on the WGS84 ellipsoid, `seconds` after the start.
    static Location at(double metres, double seconds) {
        double latitude = 0.0, longitude = 0.0;
        GeographicLib::Geodesic::WGS84().Direct(52.52, 13.405, 0.0, metres, latitude, longitude);
        return test::fixAt(latitude, longitude, 10.0, Date{start + seconds});
    }
    std::size_t clusterSize() const { return detector.cluster() ? detector.cluster()->locations().size() : 0; }

    std::shared_ptr<RecordingStayDelegate> delegate = std::make_shared<RecordingStayDelegate>();
    StayDetector detector{600.0};
};

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

    for (const Location& fix : {zero, exact}) detector.processLocation(fix);
    EXPECT_EQ(clusterSize(), 2u);
    detector.resetCluster();
    detector.resetCurrentLocation();
    for (const Location& fix : {zero, beyond}) detector.processLocation(fix);
    EXPECT_EQ(clusterSize(), 1u);
    EXPECT_EQ(detector.cluster()->center(), beyond);
}

TEST_F(StayDetectorTest, AStayIsReportedOnlyOnceTheSpanExceedsTheLimitAtTheMeanOfTheRawFixesAndAllStartsAfresh) {
    const Location fixes[] = {at(0.0, 0.0), at(40.0, 300.0), at(-20.0, 600.0), at(10.0, 600.5)};
    for (int i = 0; i < 3; ++i) detector.processLocation(fixes[i]);
    EXPECT_TRUE(delegate->centers.empty()) << "a span of exactly the limit is no stay";
    detector.processLocation(fixes[3]);
    ASSERT_EQ(delegate->centers.size(), 1u);
    double latitudes = 0.0;
    for (const Location& fix : fixes) latitudes += fix.coordinate.latitude;
    EXPECT_DOUBLE_EQ(delegate->centers[0].coordinate.latitude, latitudes / 4.0);
    EXPECT_EQ(detector.cluster(), nullptr);
    EXPECT_FALSE(detector.currentLocation());
}

TEST_F(StayDetectorTest, AfterAJumpTheNewClusterStartsAtTheRawFixButTheSmoothedPositionKeepsAQuarterOfThePast) {
    detector.processLocation(at(0.0, 0.0));
    detector.processLocation(at(0.0, 1.0));
    EXPECT_EQ(detector.currentLocation(), at(0.0, 1.0)) << "the second fix is taken unsmoothed";
    const Location jump = at(1000.0, 2.0);
    detector.processLocation(jump);  // smoothed 750 m north: too far
    EXPECT_EQ(clusterSize(), 1u);
    EXPECT_EQ(detector.cluster()->center(), jump);
    // 180 m beyond the jump, but smoothed only about 72 m from it: it joins.
    detector.processLocation(at(1180.0, 3.0));
    EXPECT_EQ(clusterSize(), 2u);
}

TEST_F(StayDetectorTest, TheCentreFollowsTheFirst999FixesAndThenStaysPut) {
    for (int i = 0; i < 998; ++i) detector.processLocation(at(0.0, 0.0));
    const Location center998 = detector.cluster()->center();
    detector.processLocation(at(90.0, 0.0));
    const Location center999 = detector.cluster()->center();
    EXPECT_GT(center999.coordinate.latitude, center998.coordinate.latitude);
    for (int i = 0; i < 5; ++i) detector.processLocation(at(90.0, 0.0));
    EXPECT_EQ(clusterSize(), 1004u);
    EXPECT_EQ(detector.cluster()->center(), center999);
}

TEST(ClusterDeathTest, TheDurationOfNoFixesIsAProgrammingError) {
    EXPECT_DEATH(Cluster::durationOf({}), "Invalid Cluster size!");
}

}  // namespace
}  // namespace rovalis
