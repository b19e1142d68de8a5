// Rollout: how a device decides, with no server logic, whether it takes a version that the
// publisher released to only part of the devices. A pack's record may name, beside the version
// released to every device, a version in rollout and the share of devices that take it ("rs",
// "rp", "rt"). The device places itself by a hash of its install identifier and the pack's name:
// the same place for the same pack at every check, so that raising the share keeps every device
// that had the version, and a different place for each pack, so that one device is not first in
// line for every rollout. A device in the share takes the record as the gray version that a
// gray-group device would be sent; any other device takes the released version as it stands, so
// that the gray and rollback rules of the merge apply unchanged (docs/rollout.md).
//
// Plain functions; the install identifier is read once per root under a lock: any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace FerritCore::Rollout {

// Shares are in basis points: 10000 is every device, 1 is one in ten thousand.
inline constexpr uint32_t kShareScale = 10000;
// The file below the root that holds the install identifier.
inline constexpr std::string_view kInstallIdFile = "install-id";
// Random bytes in a new identifier, written as twice as many hexadecimal characters.
inline constexpr size_t kInstallIdBytes = 16;

// The device's place for one pack, in [0, kShareScale): the first eight bytes of the SHA-256 of
// the identifier, "/" and the pack's name, read big-endian, modulo kShareScale.
uint32_t cohortSlot(std::string_view installId, std::string_view packName);
// Whether a device with this identifier takes a version rolled out to `share` basis points of
// the devices: its slot is below the share. A device without an identifier never does.
bool inCohort(std::string_view installId, std::string_view packName, uint32_t share);

// The install identifier kept under `root` (ending in "/"): read when the file holds one, made
// and written once otherwise (random bytes from OpenSSL, written to a temporary file and linked
// to its name, so that two processes on one root agree on whichever came first). Empty when the
// root cannot hold it (a read-only root): such a device stays out of every rollout.
std::string loadInstallId(const std::string& root);
// The identifier of the process's root, loaded at the first call for that root and kept; while
// it cannot be read or made, every call tries again.
std::string installId();

}  // namespace FerritCore::Rollout
