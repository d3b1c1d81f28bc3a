#pragma once

// Source component of every log line; the runner filters and groups by these texts.
namespace kesh {
namespace component {
inline constexpr const char kRequire[] = "Require";
inline constexpr const char kConsole[] = "Console";
inline constexpr const char kKeshLogger[] = "KeshLogger";
inline constexpr const char kFileCacheManager[] = "FileCacheManager";
inline constexpr const char kScriptCacheManager[] = "ScriptCacheManager";
inline constexpr const char kUtilities[] = "Utilities";
inline constexpr const char kTimers[] = "timers";
inline constexpr const char kVuserThread[] = "VuserThread";
inline constexpr const char kNetworkManager[] = "NetworkManager";
inline constexpr const char kKeshInspector[] = "KeshInspector";
inline constexpr const char kKeshFactory[] = "KeshFactory";
}  // namespace component
}  // namespace kesh
