// Setup and lifecycle: the order in which the system comes alive as the host drives it, the
// once-only start-up flags, foreground and background, and the status report that says what is
// missing. Nothing starts when the library is loaded.
//
// Threading: every operation may be called from any thread; the host calls setup, startUpdate,
// clientActived, clientDeactived and setProxy from its work pool and the setters from its script
// thread. The completion step and autoStartUpdate run on the worker. setProxy, setup,
// setupSubProcess, reloadConfig, startUpdate, clientActived and clientDeactived serialise
// themselves: two of them called at once run one after the other, never interleaved.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "base/Environment.h"
#include "marl/Json.h"

namespace FerritCore {

class Proxy;

// Who starts updating after setup.
enum class SetupMode : int32_t {
    kAutoUpdate = 0,        // the system starts it once the first configuration update finished
    kHostStartsUpdate = 1,  // the host calls startUpdate itself
};

class Setup {
  public:
    // Delay of the late start when the host never calls startUpdate.
    static constexpr double kAutoStartDelayMs = 300000.0;
    // Stores are compacted at most this often.
    static constexpr double kCompactionIntervalMs = 600000.0;
    // The cleanup pass runs every seven days.
    static constexpr double kCleanupIntervalMs = 604800000.0;

    // Stores the proxy (replacing any earlier one); with a proxy, wires the process's services
    // (see Services), takes the app's raw files from `rawFileFolder` (or, when it is empty,
    // through the proxy), initialises the folders under `rootPath` and loads the stored
    // configuration. An empty root logs 9992 and goes on without.
    static void setProxy(std::shared_ptr<Proxy> proxy, const std::string& rootPath,
                         const std::string& rawFileFolder = {});
    // Main-process setup.
    static void setup(const std::string& appKey, const std::string& appVersion, SetupMode mode);
    static void setupSubProcess();
    // A sub process reads afresh the configuration that the main process wrote; a main process,
    // which owns the document, does nothing.
    static void reloadConfig();
    static void startUpdate();
    static void clientActived();
    static void clientDeactived();
    static void setEnv(int32_t env);
    static void setLocale(const std::string& locale);
    static void setNetworkStatus(NetworkStatus status);

    // What runs when the first configuration update of the process has finished (worker).
    static void configFirstUpdated();
    // The late start when the host did not call startUpdate (worker).
    static void autoStartUpdate();
    // Compacts the stores unless that was done less than ten minutes ago.
    static void compactDatabases();

    // {"version", "process", "feature"} and, when anything is missing, "error": the codes
    // "NO_PROXY" / "ROOT_NOT_EXIST", "NOT_SETUP" / "NO_APPKEY" / "NO_APPVERSION",
    // "NOT_UPDATE_CONFIG", "NOT_START_UPDATE", in that order.
    static MarlLogger::json::JSON statusReport();
};

}  // namespace FerritCore
