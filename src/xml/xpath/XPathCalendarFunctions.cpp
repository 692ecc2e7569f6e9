// The date, time and duration functions of the library: the current date and time, component
// extraction, fn:dateTime and time-zone adjustment. The values' own rules live in
// XPathCalendar.h; these bodies only unpack arguments and wrap results.
#include "xml/xpath/XPathCalendar.h"
#include "xml/xpath/XPathFunctionSupport.h"

#include <optional>

namespace Veskan {
namespace Detail {
namespace XPath {

namespace {

// The evaluation's current dateTime, with the implicit time zone. The evaluator fixes it once per
// evaluation, so that every call in one expression sees the same instant.
const Calendar& CurrentOf(FunctionContext& context) {
  return *static_cast<const Calendar*>(context.Dynamic().currentDateTime.get());
}

Type TypeOf(CalendarKind kind) {
  switch (kind) {
    case CalendarKind::DateTime:
      return Type::DateTime;
    case CalendarKind::Date:
      return Type::Date;
    case CalendarKind::Time:
      return Type::Time;
    case CalendarKind::GYearMonth:
      return Type::GYearMonth;
    case CalendarKind::GYear:
      return Type::GYear;
    case CalendarKind::GMonthDay:
      return Type::GMonthDay;
    case CalendarKind::GDay:
      return Type::GDay;
    case CalendarKind::GMonth:
      return Type::GMonth;
  }
  return Type::DateTime;
}

Sequence OneCalendar(const Calendar& value) {
  return One(Item::OfCalendar(TypeOf(value.kind), value));
}

Sequence OneDecimal(const ScaledDecimal& value) {
  return One(Item::OfDecimal(Decimal::FromUnscaled(value.unscaled, value.scale)));
}

Sequence OneDayTimeDuration(const Duration& value) {
  return One(Item::OfDuration(Type::DayTimeDuration, value));
}

// ---- Current date and time

Sequence CurrentDateTime(FunctionContext& context, Arguments&) {
  return OneCalendar(CurrentOf(context));
}

Sequence CurrentDate(FunctionContext& context, Arguments&) {
  return OneCalendar(Cast(CurrentOf(context), CalendarKind::Date));
}

Sequence CurrentTime(FunctionContext& context, Arguments&) {
  return OneCalendar(Cast(CurrentOf(context), CalendarKind::Time));
}

Sequence ImplicitTimezone(FunctionContext& context, Arguments&) {
  return OneDayTimeDuration(TimezoneToDuration(context.Comparison().implicitTimezone));
}

// fn:dateTime(xs:date?, xs:time?): empty when either argument is.
Sequence CombineArguments(FunctionContext&, Arguments& arguments) {
  if (arguments[0].empty() || arguments[1].empty()) return {};
  return OneCalendar(
      CombineDateTime(arguments[0].front().AsCalendar(), arguments[1].front().AsCalendar()));
}

// ---- Components of durations
//
// Each takes one xs:duration? (a subtype is accepted as such) and returns the empty sequence for
// the empty sequence.

template <typename Extract>
Sequence FromDuration(const Arguments& arguments, Extract extract) {
  if (arguments[0].empty()) return {};
  return extract(arguments[0].front().AsDuration());
}

Sequence YearsFromDuration(FunctionContext&, Arguments& arguments) {
  return FromDuration(arguments, [](const Duration& d) { return OneInteger(d.YearsPart()); });
}

Sequence MonthsFromDuration(FunctionContext&, Arguments& arguments) {
  return FromDuration(arguments, [](const Duration& d) { return OneInteger(d.MonthsPart()); });
}

Sequence DaysFromDuration(FunctionContext&, Arguments& arguments) {
  return FromDuration(arguments, [](const Duration& d) { return OneInteger(d.DaysPart()); });
}

Sequence HoursFromDuration(FunctionContext&, Arguments& arguments) {
  return FromDuration(arguments, [](const Duration& d) { return OneInteger(d.HoursPart()); });
}

Sequence MinutesFromDuration(FunctionContext&, Arguments& arguments) {
  return FromDuration(arguments, [](const Duration& d) { return OneInteger(d.MinutesPart()); });
}

Sequence SecondsFromDuration(FunctionContext&, Arguments& arguments) {
  return FromDuration(arguments, [](const Duration& d) { return OneDecimal(d.SecondsPart()); });
}

// ---- Components of dates and times
//
// The argument types differ (xs:dateTime?, xs:date? or xs:time?) but the fields sit in the same
// Calendar, so one body per component serves every kind that has it.

template <typename Extract>
Sequence FromCalendar(const Arguments& arguments, Extract extract) {
  if (arguments[0].empty()) return {};
  return extract(arguments[0].front().AsCalendar());
}

Sequence YearFrom(FunctionContext&, Arguments& arguments) {
  return FromCalendar(arguments, [](const Calendar& c) { return OneInteger(c.year); });
}

Sequence MonthFrom(FunctionContext&, Arguments& arguments) {
  return FromCalendar(arguments, [](const Calendar& c) { return OneInteger(c.month); });
}

Sequence DayFrom(FunctionContext&, Arguments& arguments) {
  return FromCalendar(arguments, [](const Calendar& c) { return OneInteger(c.day); });
}

Sequence HoursFrom(FunctionContext&, Arguments& arguments) {
  return FromCalendar(arguments, [](const Calendar& c) { return OneInteger(c.hour); });
}

Sequence MinutesFrom(FunctionContext&, Arguments& arguments) {
  return FromCalendar(arguments, [](const Calendar& c) { return OneInteger(c.minute); });
}

Sequence SecondsFrom(FunctionContext&, Arguments& arguments) {
  return FromCalendar(arguments, [](const Calendar& c) { return OneDecimal(c.Seconds()); });
}

// The value's zone as a dayTimeDuration; empty when it has none.
Sequence TimezoneFrom(FunctionContext&, Arguments& arguments) {
  return FromCalendar(arguments, [](const Calendar& c) -> Sequence {
    if (!c.timezone) return {};
    return OneDayTimeDuration(TimezoneToDuration(*c.timezone));
  });
}

// ---- Time-zone adjustment

// fn:adjust-*-to-timezone($value, $zone?): with one argument the zone is the implicit one; an
// empty second argument removes the value's zone.
Sequence AdjustToZone(FunctionContext& context, Arguments& arguments) {
  if (arguments[0].empty()) return {};
  std::optional<int> zone;
  if (arguments.size() < 2)
    zone = context.Comparison().implicitTimezone;
  else if (!arguments[1].empty())
    zone = TimezoneFromDuration(arguments[1].front().AsDuration());
  return OneCalendar(AdjustToTimezone(arguments[0].front().AsCalendar(), zone));
}

}  // namespace

const FunctionDefinition CalendarFunctions[] = {
    {u"current-dateTime", 0, 0, CurrentDateTime, u""},
    {u"current-date", 0, 0, CurrentDate, u""},
    {u"current-time", 0, 0, CurrentTime, u""},
    {u"implicit-timezone", 0, 0, ImplicitTimezone, u""},
    {u"dateTime", 2, 2, CombineArguments, u"xs:date?, xs:time?"},
    {u"years-from-duration", 1, 1, YearsFromDuration, u"xs:duration?"},
    {u"months-from-duration", 1, 1, MonthsFromDuration, u"xs:duration?"},
    {u"days-from-duration", 1, 1, DaysFromDuration, u"xs:duration?"},
    {u"hours-from-duration", 1, 1, HoursFromDuration, u"xs:duration?"},
    {u"minutes-from-duration", 1, 1, MinutesFromDuration, u"xs:duration?"},
    {u"seconds-from-duration", 1, 1, SecondsFromDuration, u"xs:duration?"},
    {u"year-from-dateTime", 1, 1, YearFrom, u"xs:dateTime?"},
    {u"month-from-dateTime", 1, 1, MonthFrom, u"xs:dateTime?"},
    {u"day-from-dateTime", 1, 1, DayFrom, u"xs:dateTime?"},
    {u"hours-from-dateTime", 1, 1, HoursFrom, u"xs:dateTime?"},
    {u"minutes-from-dateTime", 1, 1, MinutesFrom, u"xs:dateTime?"},
    {u"seconds-from-dateTime", 1, 1, SecondsFrom, u"xs:dateTime?"},
    {u"timezone-from-dateTime", 1, 1, TimezoneFrom, u"xs:dateTime?"},
    {u"year-from-date", 1, 1, YearFrom, u"xs:date?"},
    {u"month-from-date", 1, 1, MonthFrom, u"xs:date?"},
    {u"day-from-date", 1, 1, DayFrom, u"xs:date?"},
    {u"timezone-from-date", 1, 1, TimezoneFrom, u"xs:date?"},
    {u"hours-from-time", 1, 1, HoursFrom, u"xs:time?"},
    {u"minutes-from-time", 1, 1, MinutesFrom, u"xs:time?"},
    {u"seconds-from-time", 1, 1, SecondsFrom, u"xs:time?"},
    {u"timezone-from-time", 1, 1, TimezoneFrom, u"xs:time?"},
    {u"adjust-dateTime-to-timezone", 1, 2, AdjustToZone, u"xs:dateTime?, xs:dayTimeDuration?"},
    {u"adjust-date-to-timezone", 1, 2, AdjustToZone, u"xs:date?, xs:dayTimeDuration?"},
    {u"adjust-time-to-timezone", 1, 2, AdjustToZone, u"xs:time?, xs:dayTimeDuration?"},
    {u"", 0, 0, nullptr, u""},
};

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
