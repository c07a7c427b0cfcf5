#!/usr/bin/env python3
"""Turn the track points of a GPX file into NMEA 0183 (an RMC and a GGA sentence per point),
so that gpsfake can replay a recorded trip to gpsd.

The trip is moved in time to start at --start (default: now), keeping the gaps between
points; with --step SECONDS the points are resampled to one every STEP seconds (straight
lines at constant speed between recorded points, so a time gap between nearby points stays
a stay). The output goes to standard output or --output.
"""

import argparse
import datetime as dt
import math
import sys
import xml.etree.ElementTree as ET


def track_points(path):
    points = []
    for element in ET.parse(path).getroot().iter():
        if not element.tag.endswith("trkpt"):
            continue
        when = next((child.text for child in element if child.tag.endswith("time")), None)
        if when is None:
            continue
        stamp = dt.datetime.fromisoformat(when.strip().replace("Z", "+00:00"))
        points.append((stamp.timestamp(), float(element.get("lat")), float(element.get("lon"))))
    points.sort()
    return points


def resample(points, step):
    """One point every `step` seconds from the first to the last, interpolated linearly."""
    out = []
    t, i = points[0][0], 0
    while t <= points[-1][0] + 1e-9:
        while i + 1 < len(points) and points[i + 1][0] < t:
            i += 1
        a, b = points[i], points[min(i + 1, len(points) - 1)]
        f = 0.0 if b[0] == a[0] else (t - a[0]) / (b[0] - a[0])
        out.append((t, a[1] + f * (b[1] - a[1]), a[2] + f * (b[2] - a[2])))
        t += step
    return out


def checksum(body):
    value = 0
    for char in body.encode("ascii"):
        value ^= char
    return "$%s*%02X" % (body, value)


def angle(value, degree_digits):
    """ddmm.mmmm (or dddmm.mmmm) and the hemisphere's sign."""
    whole = int(abs(value))
    minutes = (abs(value) - whole) * 60.0
    return "%0*d%07.4f" % (degree_digits, whole, minutes)


def knots_and_course(previous, point):
    if previous is None or point[0] <= previous[0]:
        return 0.0, 0.0
    lat1, lon1, lat2, lon2 = map(math.radians, (previous[1], previous[2], point[1], point[2]))
    x = (lon2 - lon1) * math.cos((lat1 + lat2) / 2)
    y = lat2 - lat1
    metres = math.hypot(x, y) * 6371000.0
    course = (math.degrees(math.atan2(x, y)) + 360.0) % 360.0
    return metres / (point[0] - previous[0]) / 0.514444, course


def sentences(points):
    previous = None
    for point in points:
        stamp = dt.datetime.fromtimestamp(point[0], dt.timezone.utc)
        hhmmss = stamp.strftime("%H%M%S.") + "%02d" % (stamp.microsecond // 10000)
        lat = angle(point[1], 2) + ("," + ("N" if point[1] >= 0 else "S"))
        lon = angle(point[2], 3) + ("," + ("E" if point[2] >= 0 else "W"))
        knots, course = knots_and_course(previous, point)
        # RMC first: it carries the date, which GGA's time of day needs.
        yield checksum("GPRMC,%s,A,%s,%s,%.1f,%.1f,%s,,,A" % (hhmmss, lat, lon, knots, course,
                                                             stamp.strftime("%d%m%y")))
        yield checksum("GPGGA,%s,%s,%s,1,09,0.9,35.0,M,47.0,M,," % (hhmmss, lat, lon))
        previous = point


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("gpx")
    parser.add_argument("--start", type=float, help="seconds since 1970 of the first point (default: now)")
    parser.add_argument("--step", type=float, default=1.0, help="seconds between points (default 1)")
    parser.add_argument("--output", help="file to write (default: standard output)")
    arguments = parser.parse_args()

    points = track_points(arguments.gpx)
    if not points:
        sys.exit("no timed track points in " + arguments.gpx)
    start = arguments.start if arguments.start is not None else dt.datetime.now(dt.timezone.utc).timestamp()
    shift = start - points[0][0]
    points = resample([(t + shift, lat, lon) for t, lat, lon in points], arguments.step)
    out = open(arguments.output, "w") if arguments.output else sys.stdout
    for sentence in sentences(points):
        out.write(sentence + "\r\n")


if __name__ == "__main__":
    main()
