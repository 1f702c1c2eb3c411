#include "support/livefifo.h"

namespace tw::test {

bool StartPublisher(ChildProcess& stream, const std::vector<std::string>& args, std::string& error) {
    std::vector<std::string> all = {TW_TWHOST_BIN, "stream"};
    all.insert(all.end(), args.begin(), args.end());
    if (!stream.Start(all, error)) return false;
    // Text and JSON output alike name the line "publishing".
    if (!WaitForOutput(stream, "publishing", error)) {
        error = "twhost stream never started publishing: " + error;
        return false;
    }
    return true;
}

}  // namespace tw::test
