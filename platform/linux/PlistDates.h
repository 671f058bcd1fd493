// Exact dates around libplist 2.2, whose date getter and setter carry 32-bit
// seconds since 2001 and whose XML reader drops fractions of a second. The
// dates are read from the bytes here; libplist carries only an index.
#pragma once

#include <plist/plist.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Date.h"

namespace platform {

// "YYYY-MM-DDTHH:MM:SS[.digits]Z" of years 1 to 9999 (white space around
// it allowed); the reason when the text is no such date.
std::optional<Date> parseXmlDate(std::string_view text, std::string* why);
// The same form, with the fewest fraction digits that read back as the
// same date; nothing outside years 1 to 9999.
std::optional<std::string> formatXmlDate(const Date& date);

// An XML property list with each date element's text replaced by the
// index of its date in `dates`, so libplist reads 2001-01-01 plus the index.
struct XmlDates {
  std::string text;
  std::vector<Date> dates;
};
// Fails with the reason when a date's text is not a date, or when "<date"
// appears where it is not a date element the scan read (a comment, CDATA,
// a declaration), which libplist might read otherwise.
std::optional<XmlDates> takeXmlDates(std::string_view xml, std::string* why);
// The index a date node carries, when it is one takeXmlDates could have made.
std::optional<std::size_t> xmlDateIndex(plist_t node);
// XML written by libplist with date nodes made by xmlDateIndexNode, each
// date element's text replaced by the date it stands for.
std::optional<std::string> putXmlDates(std::string_view xml, const std::vector<Date>& dates);
plist_t xmlDateIndexNode(std::size_t index);

// A binary property list's date node as the 64-bit float the file holds.
std::optional<double> binaryDateSeconds(plist_t node);

}  // namespace platform
