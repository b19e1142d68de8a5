// Log tags (one per subsystem) and the prefixes of trace ids (one per flow). Every log event and
// trace id of the system takes its tag or prefix from here.
#pragma once

#include <string_view>

namespace FerritCore::LogTag {

inline constexpr std::string_view kRoot = "Ferrit";  // clearing the cache and cleanup roots
inline constexpr std::string_view kAccess = "Ferrit/Access";
inline constexpr std::string_view kAggregateRequest = "Ferrit/AggregateRequest";
inline constexpr std::string_view kBridge = "Ferrit/Bridge";  // the script host's bridge
inline constexpr std::string_view kEmbed = "Ferrit/Embed";    // the native host's C interface
inline constexpr std::string_view kCache = "Ferrit/Cache";
inline constexpr std::string_view kConfig = "Ferrit/Config";
inline constexpr std::string_view kEvent = "Ferrit/Event";
inline constexpr std::string_view kKeys = "Ferrit/Keys";  // whose signatures are taken
inline constexpr std::string_view kLoad = "Ferrit/Load";
inline constexpr std::string_view kModuleCache = "Ferrit/ModuleCache";
inline constexpr std::string_view kPrefetch = "Ferrit/Prefetch";
inline constexpr std::string_view kPreload = "Ferrit/Preload";
inline constexpr std::string_view kPush = "Ferrit/Push";
inline constexpr std::string_view kQueue = "Ferrit/Queue";
inline constexpr std::string_view kRead = "Ferrit/Read";
inline constexpr std::string_view kReader = "Ferrit/Reader";
inline constexpr std::string_view kSCache = "Ferrit/SCache";
inline constexpr std::string_view kSetup = "Ferrit/Setup";
inline constexpr std::string_view kStatistics = "Ferrit/Statistics";
inline constexpr std::string_view kTask = "Ferrit/Task";
inline constexpr std::string_view kUniApp = "Ferrit/UniApp";
inline constexpr std::string_view kUpdateConfig = "Ferrit/UpdateConfig";
inline constexpr std::string_view kUpdatePack = "Ferrit/UpdatePack";
inline constexpr std::string_view kVariant = "Ferrit/Variant";
inline constexpr std::string_view kFConfig = "Ferrit/FConfig";

}  // namespace FerritCore::LogTag

namespace FerritCore::TracePrefix {

inline constexpr std::string_view kAccess = "FT_Access";      // one request
inline constexpr std::string_view kResource = "FT_Resource";  // one resource part of a request
inline constexpr std::string_view kRead = "FT_Read";          // an on-demand read
inline constexpr std::string_view kReader = "FT_Reader";      // the shared context of the reader
inline constexpr std::string_view kConfig = "FT_Config";      // one configuration update
inline constexpr std::string_view kPack = "FT_Pack";          // one pack update
inline constexpr std::string_view kQueue = "FT_Queue";        // one queue run
inline constexpr std::string_view kPreview = "FT_Preview";    // one preview
inline constexpr std::string_view kPrefetch = "ft_prefetch";  // one prefetch
inline constexpr std::string_view kPreload = "ft_preload";    // one preload install

}  // namespace FerritCore::TracePrefix
