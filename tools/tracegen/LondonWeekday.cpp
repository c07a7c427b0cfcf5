#include "LondonWeekday.h"

namespace rovalis::tracegen {

namespace {

// The routes follow the streets and the railway vertex by vertex; the coordinates are read
// off a map to within a few metres.
const LocationCoordinate2D home{51.45550, -0.10750};    // a side street between Railton Road and Dulwich Road
const LocationCoordinate2D office{51.51485, -0.09920};  // Paternoster Square
const LocationCoordinate2D cafe{51.50800, -0.09810};    // Bankside, by the Globe
const LocationCoordinate2D shop{51.46080, -0.11210};    // Atlantic Road, Brixton
const LocationCoordinate2D brixtonStation{51.46255, -0.11450};

const Polyline homeToHerneHill{
    home,
    {51.45470, -0.10755},
    {51.45385, -0.10760},  // Dulwich Road
    {51.45360, -0.10650},
    {51.45335, -0.10530},
    {51.45315, -0.10400},
    {51.45320, -0.10300},  // crossing Railton Road
    {51.45335, -0.10260},
    {51.45345, -0.10225},  // Herne Hill, the up platform
};

// Herne Hill - Loughborough Junction - Elephant & Castle - Blackfriars, on the railway.
const Polyline herneHillToBlackfriars{
    {51.45345, -0.10225},  // Herne Hill
    {51.45600, -0.10200},
    {51.45900, -0.10190},
    {51.46250, -0.10200},
    {51.46630, -0.10205},  // 4: Loughborough Junction
    {51.46900, -0.10130},
    {51.47200, -0.10000},
    {51.47500, -0.09880},
    {51.47900, -0.09790},
    {51.48350, -0.09760},
    {51.48800, -0.09800},
    {51.49150, -0.09850},
    {51.49420, -0.09880},  // 12: Elephant & Castle
    {51.49700, -0.09950},
    {51.50000, -0.10080},
    {51.50300, -0.10250},  // 15: the signal before the river
    {51.50550, -0.10380},
    {51.50800, -0.10380},
    {51.51130, -0.10350},  // 18: Blackfriars, on the bridge
};

const Polyline blackfriarsToOffice{
    {51.51130, -0.10350},
    {51.51175, -0.10365},
    {51.51190, -0.10385},  // the north exit
    {51.51300, -0.10410},  // New Bridge Street
    {51.51385, -0.10425},  // Ludgate Circus
    {51.51395, -0.10300},  // Ludgate Hill
    {51.51390, -0.10155},
    {51.51460, -0.10140},  // Ave Maria Lane
    {51.51475, -0.10000},  // Paternoster Row
    office,
};

const Polyline officeToMillenniumBridge{
    office,
    {51.51430, -0.09950},
    {51.51385, -0.10010},  // the cathedral's west front
    {51.51330, -0.09990},
    {51.51305, -0.09920},
    {51.51285, -0.09860},  // Peter's Hill
    {51.51180, -0.09850},
    {51.51150, -0.09852},  // crossing Queen Victoria Street
    {51.51050, -0.09855},
    {51.50985, -0.09860},  // the bridge's north end
};

const Polyline millenniumBridgeToCafe{
    {51.50985, -0.09860}, {51.50880, -0.09895},
    {51.50775, -0.09935},  // the south end
    {51.50790, -0.09880}, cafe,
};

const Polyline cafeToUpperThamesStreet{
    cafe,
    {51.50810, -0.09720},
    {51.50805, -0.09600},
    {51.50780, -0.09500},
    {51.50765, -0.09450},  // Southwark Bridge
    {51.50880, -0.09420},
    {51.51010, -0.09385},
    {51.51035, -0.09370},  // crossing Upper Thames Street
};

const Polyline upperThamesStreetToOffice{
    {51.51035, -0.09370}, {51.51100, -0.09350},  // Queen Street
    {51.51195, -0.09315},                        // crossing Cannon Street
    {51.51300, -0.09290}, {51.51375, -0.09285},  // Cheapside
    {51.51405, -0.09450}, {51.51420, -0.09600}, {51.51435, -0.09700},
    {51.51450, -0.09800}, {51.51470, -0.09870}, office,
};

const Polyline officeToStPauls{
    office, {51.51470, -0.09870}, {51.51468, -0.09800}, {51.51475, -0.09760},  // St Paul's station
};

const Polyline brixtonToShop{
    brixtonStation,       {51.46225, -0.11415},
    {51.46185, -0.11360},  // Atlantic Road
    {51.46130, -0.11280}, shop,
};

const Polyline shopToHome{
    shop,
    {51.46030, -0.11150},  // Railton Road
    {51.45900, -0.10995},
    {51.45760, -0.10825},
    {51.45600, -0.10635},
    {51.45590, -0.10750},
    home,
};

}  // namespace

std::vector<NamedPlace> londonWeekdayPlaces() {
    return {{"home", home},
            {"office", office},
            {"café", cafe},
            {"shop", shop},
            {"Herne Hill station", homeToHerneHill.back()},
            {"Brixton station", brixtonStation}};
}

void recordLondonWeekday(Recorder& recorder, Date midnight) {
    const auto clock = [&](int hours, int minutes) { return midnight.addingSeconds(hours * 3600.0 + minutes * 60.0); };

    recorder.stay("night at home", home, clock(7, 53));
    recorder.walk("walk to Herne Hill station", homeToHerneHill, Sky::street, {{2, 5, 30}, {6, 5, 25}});
    recorder.wait("wait for the 08:05 train", clock(8, 5), Sky::open);
    recorder.ride("train to Blackfriars", herneHillToBlackfriars, {{4, 30, 60}, {12, 30, 60}, {15, 20, 45}}, 17.0);
    recorder.walk("walk to the office", blackfriarsToOffice, Sky::canyon, {{2, 10, 40}, {4, 15, 45}});
    recorder.stay("office", office, clock(12, 30));

    recorder.walk("lunch walk to the Millennium Bridge", officeToMillenniumBridge, Sky::canyon, {{7, 10, 40}});
    recorder.walk("over the bridge to the café", millenniumBridgeToCafe, Sky::open);
    recorder.stay("café", cafe, recorder.now().addingSeconds(15 * 60));
    recorder.walk("along Bankside and over Southwark Bridge", cafeToUpperThamesStreet, Sky::open, {{7, 10, 40}});
    recorder.walk("back to the office by Cheapside", upperThamesStreetToOffice, Sky::canyon, {{2, 5, 30}, {4, 10, 40}});
    recorder.stay("office", office, clock(17, 35));

    recorder.walk("walk to St Paul's station", officeToStPauls, Sky::canyon);
    recorder.underground("Central and Victoria lines to Brixton", brixtonStation, 31 * 60);
    recorder.walk("walk to the shop", brixtonToShop, Sky::street, {{2, 5, 30}});
    recorder.stay("shop", shop, recorder.now().addingSeconds(15 * 60));
    recorder.walk("walk home", shopToHome, Sky::street, {{1, 5, 30}});
    recorder.stay("evening at home", home, clock(24, 0));
}

}  // namespace rovalis::tracegen
