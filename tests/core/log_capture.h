// The log of the code under test, kept in memory instead of a file.
#pragma once

#include <string>

// Takes the records since the last call: lines of "source-file level function message", without
// `start` where they start so.
std::string takeLog(const std::string& start = "");
