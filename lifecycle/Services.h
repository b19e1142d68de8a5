// Services: the composition root. Lower layers reach what lies above them, or what the host
// provides, through small interfaces held in process-wide slots; this is the one place that fills
// them. Setup::setProxy wires a running process here, and the tools go through the same calls.
//
//   packed files      the `Packed` kind of Folder      -> PacksStore::files()
//   mark store        the timers' persisted marks      -> ConfigStore::marks()
//   config storage    SCache's commits and removals    -> PacksConfigStorage
//   update requester  the read path's update requests  -> the update queue
//   asset provider    the app's raw files              -> RawFileProvider over a folder, or the
//                                                         host's Proxy
//
// The singletons themselves (Environment, Settings, the stores, SCache, the index pool, the task
// runner) are created at their first use and live until the process ends; ProcessState's one
// reset puts every one of them, and every slot, back as a fresh process has it. Any thread.
#pragma once

#include <string>

namespace FerritCore {

class Services {
  public:
    // Fills every slot but the asset provider's. Idempotent.
    static void wire();
    // The app's raw files: the folder on the disk when one is given, else the host's Proxy.
    static void attachAssets(const std::string& rawFileFolder);
};

}  // namespace FerritCore
