// Codes of the service and of the system in sentences. Pure.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>

#include "zelctl/failure.h"
#include "zelctl/machine.h"
#include "zelctl/request.h"
#include "zelctl/zel_server.h"

namespace zel::ctl {

inline constexpr std::uint32_t kInvalidFunction = 1;        // ERROR_INVALID_FUNCTION
inline constexpr std::uint32_t kFileNotFound = 2;           // ERROR_FILE_NOT_FOUND
inline constexpr std::uint32_t kPathNotFound = 3;           // ERROR_PATH_NOT_FOUND
inline constexpr std::uint32_t kSharingViolation = 32;      // ERROR_SHARING_VIOLATION
inline constexpr std::uint32_t kNotSupported = 50;          // ERROR_NOT_SUPPORTED
inline constexpr std::uint32_t kDiskFull = 112;             // ERROR_DISK_FULL
inline constexpr std::uint32_t kInsufficientBuffer = 122;   // ERROR_INSUFFICIENT_BUFFER
inline constexpr std::uint32_t kMediaChanged = 1110;        // ERROR_MEDIA_CHANGED
inline constexpr std::uint32_t kShutdownInProgress = 1115;  // ERROR_SHUTDOWN_IN_PROGRESS
inline constexpr std::uint32_t kNotFound = 1168;            // ERROR_NOT_FOUND
inline constexpr std::uint32_t kTimeout = 1460;             // ERROR_TIMEOUT

// What to do about a driver that is not there or not heard of.
inline constexpr char kDriverAdvice[] =
    "check that the driver runs (sc query VelmoraActivityMonitor) and is attached to the volume "
    "(fltmc instances); after a start of the driver restart ZelService";

// What a code means as the answer of one operation.
struct KnownAnswer {
  std::uint32_t code;
  std::string message;
};

// None for success. A code that is not among the known ones gets the system's words after
// `otherwise`, which says what could not be done; a service that is stopping says so itself.
[[nodiscard]] MaybeFailure CheckAnswer(Machine& machine, const Request& request,
                                       const Answer& answer, const std::string& otherwise,
                                       std::initializer_list<KnownAnswer> known = {});

// None for 0; otherwise `what` could not be done, and the system's words.
[[nodiscard]] MaybeFailure CheckSystem(Machine& machine, std::uint32_t code,
                                       const std::string& what);

}  // namespace zel::ctl
