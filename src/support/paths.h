#pragma once

namespace qwk {

// The places that the daemon and its client agree on. Fixed: a board has one of each.
inline constexpr const char* controlSocketPath = "/tmp/quillwick";
inline constexpr const char* configurationPath = "/etc/quillwick.conf";
inline constexpr const char* logFolderPath = "/var/logperm";
inline constexpr const char* logFilePath = "/var/logperm/larkspur.log";
inline constexpr const char* journalFolderPath = "/run/log/journal";
inline constexpr const char* eepromDevicePath = "/dev/i2c-2";

/// 7-bit slave address of the FRAM chip on that bus.
inline constexpr int eepromSlaveAddress = 0x50;

} // namespace qwk
