// Reading "kalvorenconfig.json": the sections that match the running executable are applied, in
// member-name order, on top of the defaults of the settings record.
#pragma once

#include "base/settings_record.h"

#include <string>

namespace kv::config {

constexpr const char *kConfigFileName = "kalvorenconfig.json";
// Tracing.OutputFilename when no configuration sets it (expanded like a configured name).
constexpr const char *kDefaultOutputFilename = "%pname.kalvoren";

// Where the configuration is read from: the file named by KALVOREN_CONFIG, else
// "kalvorenconfig.json" in the working directory.
std::string configPath();

// Applies the configuration file to freshly defaulted settings and makes the start-up decisions
// (run mode, profiling, network, binary and alignment overrides). Never throws; every problem is
// reported and leaves the defaults in force.
void applyConfigFile(Settings &settings);

// The same from text already in memory (`where` names it in messages); used by applyConfigFile.
void applyConfigText(Settings &settings, const char *text, size_t length, const std::string &executableName,
                     const std::string &executablePath, const std::string &where = kConfigFileName);

// Whether a section name applies to an executable: an exact name, or a prefix ending in '*'. A
// '*' anywhere else makes the pattern invalid (`misplaced` is set).
bool sectionMatches(const std::string &pattern, const std::string &executableName, bool *misplaced);

// Expands "%pid" and "%pname" in an output file name.
CZandString expandOutputFilename(const CZandString &name, uint64_t pid, const std::string &executablePath);

// The start-up decisions that follow reading (also run when no file was found).
void makeStartupDecisions(Settings &settings);

} // namespace kv::config
