// What the header of a log session says: host, product, machine.
#pragma once

#include <ostream>
#include <string>
#include <string_view>

#include "Utils/vdSystemInfo.h"

/// The local time now, "2024-05-31 23:59:59".
std::string localDateTimeText();

/// Writes the header's lines between its two rules. A drive in the network may take long to answer. May
/// throw; the log then tells that it stopped.
void writeSessionHeaderBody(std::ostream& stream, std::string_view hostAndVersion);

/// The lines that describe a processor.
void writeProcessor(std::ostream& stream, const vdCpuInfo& cpu);

/// The lines of one drive, given its root ("C:\\").
void writeDrive(std::ostream& stream, const wchar_t* root);
