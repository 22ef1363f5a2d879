#ifndef QUILLMERE_PLATFORM_EVENTS_SQLITEEVENTSCHEMA_H
#define QUILLMERE_PLATFORM_EVENTS_SQLITEEVENTSCHEMA_H

#include <cstdint>

// Internal: how events lie in the database.
namespace quillmere {

/// What the file's header says that it is (SQLite's application_id): "QmEv".
inline constexpr std::int64_t eventApplicationId = 0x516D4576;

/// The step to each version of the schema from the one before it, the first from an empty file. A
/// database whose schema differs by a letter or a space is refused: what was released stays as it is.
///
/// Times are microseconds since 1970: those of an event with a time zone (form 0) count UTC, those
/// of a floating event (form 1) or an all-day event (form 2) the wall time.
///
/// A recurring event is one row with a rule. A changed occurrence is a row of its own that points to
/// its series, and `occurrence` is the series' time which it stands for. An exception is such a time
/// that is left out.
///
/// A range of time is found without looking at events outside it. `last` is when an event is over, a
/// recurring one with its last occurrence, and `width` is the number of bits in the time from
/// `start` to `last`. Of each width that exists in a calendar, the events that reach into a range
/// start within it or at most 2^width before it, and those lie together in the index.
inline constexpr const char* eventSchemaSteps[] = {
    R"(CREATE TABLE calendars(
         id INTEGER PRIMARY KEY,
         identifier TEXT NOT NULL UNIQUE,
         title TEXT) STRICT;
       CREATE TABLE events(
         id INTEGER PRIMARY KEY,
         calendar INTEGER NOT NULL REFERENCES calendars(id) ON DELETE CASCADE,
         series INTEGER REFERENCES events(id) ON DELETE CASCADE,
         occurrence INTEGER,
         identifier TEXT NOT NULL,
         form INTEGER NOT NULL,
         zone TEXT,
         start INTEGER NOT NULL,
         end INTEGER NOT NULL,
         last INTEGER NOT NULL,
         width INTEGER NOT NULL,
         rule TEXT,
         modified INTEGER NOT NULL,
         alarms TEXT NOT NULL,
         title TEXT,
         notes TEXT) STRICT;
       CREATE TABLE exceptions(
         series INTEGER NOT NULL REFERENCES events(id) ON DELETE CASCADE,
         occurrence INTEGER NOT NULL,
         PRIMARY KEY(series, occurrence)) STRICT, WITHOUT ROWID;
       CREATE UNIQUE INDEX event_of_identifier ON events(identifier, calendar)
         WHERE series IS NULL;
       CREATE UNIQUE INDEX event_of_occurrence ON events(series, occurrence)
         WHERE series IS NOT NULL;
       CREATE INDEX events_in_time ON events(calendar, width, start);)"};

}  // namespace quillmere

#endif
