// Tells the driver what this process does to files. Test bench only.
//
// A report is made when the call returns. When the driver is gone the process ends with
// kReportsLost: nothing goes unreported in silence.
// Threads: any. The calling thread's last error is kept.
#pragma once

#include <cstdint>

#include "files/types.h"

namespace zel::sim {

// Connects; false without a driver.
[[nodiscard]] bool StartReporting();

void ReportOpen(const FileKey& file);
void ReportClose(const FileKey& file);
void ReportRename(const FileKey& file);
void ReportRead(const FileKey& file, std::uint64_t offset, std::uint64_t length);
void ReportWrite(const FileKey& file, std::uint64_t offset, std::uint64_t length);
void ReportSize(const FileKey& file, std::uint64_t size);
// Changes that cannot be seen.
void ReportUnreported(const FileKey& file);

}  // namespace zel::sim
