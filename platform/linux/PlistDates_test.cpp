#include "platform/linux/PlistDates.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdlib>
#include <fstream>

#include "platform/PropertyList.h"
#include "platform/testing/TempDirectory.h"

namespace platform {
namespace {

std::span<const std::uint8_t> bytesOf(const std::string& s) {
  return {reinterpret_cast<const std::uint8_t*>(s.data()), s.size()};
}

Result<Value> parseXmlDateElement(const std::string& body) {
  return parsePropertyList(bytesOf("<plist><date>" + body + "</date></plist>"));
}

// A binary property list whose one object is a date of these seconds.
Data binaryDate(double since2001) {
  Data out = {'b', 'p', 'l', 'i', 's', 't', '0', '0', 0x33};
  auto bits = std::bit_cast<std::uint64_t>(since2001);
  for (int s = 56; s >= 0; s -= 8) out.push_back(static_cast<std::uint8_t>(bits >> s));
  out.insert(out.end(), {8, 0, 0, 0, 0, 0, 0, 1, 1});
  for (int i = 0; i < 7; ++i) out.push_back(0);
  out.push_back(1);
  for (int i = 0; i < 15; ++i) out.push_back(0);
  out.push_back(17);
  return out;
}

std::uint64_t bitsOf(const Value& v) {
  return std::bit_cast<std::uint64_t>(v.date()->referenceSeconds());
}

struct Edge {
  const char* xml;          // the date as an XML property list writes it
  std::int64_t whole;       // seconds since 2001, rounded toward 2001
  const char* description;  // the platform's text of it
};

// Around every limit libplist's 32-bit seconds had, both calendar ends,
// and fractions on both sides of 2001 (where they count back from the next
// second).
const Edge kEdges[] = {
    {"0001-01-01T00:00:00Z", -63113904000, "0001-01-01 00:00:00 +0000"},
    {"0001-01-01T00:00:00.000001Z", -63113903999, "0001-01-01 00:00:00 +0000"},
    {"1900-01-01T00:00:00.5Z", -3187295999, "1900-01-01 00:00:00 +0000"},
    {"1932-12-13T20:45:51.75Z", -2147483648, "1932-12-13 20:45:51 +0000"},
    {"1932-12-13T20:45:52Z", -2147483648, "1932-12-13 20:45:52 +0000"},
    {"2000-12-31T23:59:59.9Z", 0, "2000-12-31 23:59:59 +0000"},
    {"2001-01-01T00:00:00Z", 0, "2001-01-01 00:00:00 +0000"},
    {"2001-01-01T00:00:00.000000001Z", 0, "2001-01-01 00:00:00 +0000"},
    {"2038-01-19T03:14:08.123456789Z", 1169176448, "2038-01-19 03:14:08 +0000"},
    {"2069-01-20T00:00:00Z", 2147558400, "2069-01-20 00:00:00 +0000"},
    {"2100-01-01T00:00:00.25Z", 3124137600, "2100-01-01 00:00:00 +0000"},
    {"9999-12-31T23:59:59.999999Z", 252423993599, "9999-12-31 23:59:59 +0000"},
};

TEST(PlistDatesTest, EveryDateReadsBackExactlyInBothFormats) {
  for (const Edge& e : kEdges) {
    SCOPED_TRACE(e.xml);
    auto fromXml = parseXmlDateElement(e.xml);
    ASSERT_TRUE(fromXml) << fromXml.error().description;
    ASSERT_TRUE(fromXml->isDate());
    EXPECT_EQ(fromXml->date()->whole, e.whole);
    EXPECT_EQ(fromXml->description(), e.description);
    // Written as XML, the text comes back digit for digit.
    auto xml = writeXmlPropertyList(*fromXml);
    ASSERT_TRUE(xml) << xml.error().description;
    EXPECT_NE(xml->find(std::string("<date>") + e.xml + "</date>"), std::string::npos) << *xml;
    auto again = parsePropertyList(bytesOf(*xml));
    ASSERT_TRUE(again);
    EXPECT_EQ(*again->date(), *fromXml->date());

    // A binary file's double, read and written again, keeps every bit.
    double seconds = fromXml->date()->referenceSeconds();
    auto fromBinary = parsePropertyList(binaryDate(seconds));
    ASSERT_TRUE(fromBinary) << fromBinary.error().description;
    EXPECT_EQ(bitsOf(*fromBinary), std::bit_cast<std::uint64_t>(seconds));
    auto written = writeBinaryPropertyList(*fromBinary);
    ASSERT_TRUE(written);
    EXPECT_EQ(bitsOf(*parsePropertyList(*written)), std::bit_cast<std::uint64_t>(seconds));
    // A file's nanoseconds survive the date, the way a restore applies it.
    std::int64_t unix = 0, ns = 0;
    fromXml->date()->toUnix(&unix, &ns);
    EXPECT_EQ(Date::fromUnix(unix, ns), *fromXml->date());
  }
  // Doubles far from whole microseconds, around 2001 and far beyond 9999.
  for (double seconds : {-1e-300, 1e-300, -0.1, 0x1.fffffffffffffp-1, 1e15 + 0.5, -1e17}) {
    auto back =
        parsePropertyList(*writeBinaryPropertyList(*parsePropertyList(binaryDate(seconds))));
    ASSERT_TRUE(back) << seconds;
    EXPECT_EQ(bitsOf(*back), std::bit_cast<std::uint64_t>(seconds)) << seconds;
  }
}

TEST(PlistDatesTest, DatesThisSystemCannotHoldAreRefusedNotAltered) {
  for (double seconds : {double{NAN}, double{INFINITY}, -double{INFINITY}, 1e300, -0x1p62}) {
    auto got = parsePropertyList(binaryDate(seconds));
    ASSERT_FALSE(got) << seconds;
    EXPECT_NE(got.error().description.find("beyond the dates this system can hold"),
              std::string::npos)
        << got.error().description;
  }
  for (const char* body :
       {"0000-12-31T23:59:59Z", "10000-01-01T00:00:00Z", "2001-02-29T00:00:00Z",
        "2016-12-31T23:59:60Z", "2001-01-01T24:00:00Z", "2001-01-01", "2001-01-01T00:00:00",
        "2001-01-01T00:00:00.Z", "2001-01-01T00:00:00+01:00", "", "2001-01-01T00:00:00Z<!-- x -->",
        "2001-01-01T00:00:00&#90;"}) {
    auto got = parseXmlDateElement(body);
    EXPECT_FALSE(got) << body << " read as " << (got ? got->description() : "");
  }
  // A date libplist would read where the scan saw none.
  EXPECT_FALSE(parsePropertyList(bytesOf("<plist><date/></plist>")));
  EXPECT_FALSE(parsePropertyList(bytesOf(
      "<plist><array><![CDATA[<date>]]><date>2001-01-01T00:00:00Z</date></array></plist>")));
  // Leap years by the Gregorian rule, spaces around the text as XML allows.
  EXPECT_TRUE(parseXmlDateElement("2000-02-29T00:00:00Z"));
  EXPECT_FALSE(parseXmlDateElement("1900-02-29T00:00:00Z"));
  EXPECT_TRUE(parseXmlDateElement("\n  2024-02-29T12:00:00Z  \n"));
}

// Python's plistlib, an independent writer, agrees on every edge: binary
// dates to the microsecond, XML dates to the second.
TEST(PlistDatesTest, PythonsDatesMatchOurs) {
  testing::TempDirectory dir;
  std::string script = "import datetime, plistlib, sys\nd = sys.argv[1]\nedges = [\n";
  for (const Edge& e : kEdges) script += "  '" + std::string(e.xml) + "',\n";
  script += R"(]
def parse(s):
    s = s.rstrip('Z'); whole, _, frac = s.partition('.')
    return datetime.datetime.fromisoformat(whole).replace(microsecond=int((frac + '000000')[:6]))
dates = [parse(s) for s in edges]
open(d + '/dates.bin', 'wb').write(plistlib.dumps(dates, fmt=plistlib.FMT_BINARY))
open(d + '/dates.xml', 'wb').write(plistlib.dumps(dates, fmt=plistlib.FMT_XML))
)";
  std::ofstream(dir / "dates.py") << script;
  ASSERT_EQ(std::system(("python3 " + dir / "dates.py" + " " + dir.path()).c_str()), 0);
  auto binary = readPropertyListFile(dir / "dates.bin");
  auto xml = readPropertyListFile(dir / "dates.xml");
  ASSERT_TRUE(binary && xml);
  std::size_t i = 0;
  for (const Edge& e : kEdges) {
    SCOPED_TRACE(e.xml);
    std::string body = e.xml;
    std::size_t dot = body.find('.');
    if (dot != std::string::npos) body = body.substr(0, std::min(dot + 7, body.size() - 1)) + "Z";
    Date micro = *parseXmlDateElement(body)->date();
    const Value& theirs = (*binary->array())[i];
    EXPECT_NEAR(theirs.date()->referenceSeconds(), micro.referenceSeconds(),
                std::abs(micro.referenceSeconds()) * 0x1p-52);
    std::string whole = std::string(e.xml).substr(0, 19) + "Z";
    EXPECT_EQ(*(*xml->array())[i].date(), *parseXmlDateElement(whole)->date());
    ++i;
  }
}

}  // namespace
}  // namespace platform
