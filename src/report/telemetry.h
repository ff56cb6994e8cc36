#pragma once
// The telemetry file: a cumulative JSON history of the tool's runs for other components to collect.
//   <logs root>\updatetool\UpdateToolTelemetryData.json   (logs root as for the tool log; the two
//   tails are appended as plain text, so a logs root ending in a backslash doubles it)
// Layout: {"updateTool": [entry, ...], ...other members kept as read}. Every run with a pending
// update appends one entry:
//   updatedGUID, type, fileName, version (strings), timestamp (UTC seconds), status (state name),
//   attempt (RETRY), result (RESULT); fromVersion, errorCode, errorDescription only when not empty.
// Nothing in the tool removes entries.
//
// Update record: reads keyId, agent, fileName, version, state, retry, result, installedVersion,
// errorCode, errorDesc; writes nothing.
#include <string>

#include <json/value.h>

// Appends this run's entry. True when the file was written.
bool Util_UpdateDataForTelemetry();

// The file's full path.
std::wstring TelemetryFilePath();

// This run's entry, members in their fixed order.
Json::Value TelemetryEntry(long long timestamp);
