// twhost: the reference host of the device plug-in. Loads the plug-in and drives its worker
// objects on real inputs, one subcommand per worker.
#include <cstdio>

extern "C" {
#include <libavutil/log.h>
}

#include "commands.h"
#include "twhost/plugin.h"

int main(int argc, char** argv) {
    // FFmpeg's own chatter is not for twhost's users; its errors still show.
    av_log_set_level(AV_LOG_ERROR);
    CLI::App app{"twhost - reference host of the device plug-in"};
    app.require_subcommand(1);
    app.footer(tw::host::PluginModule::SearchOrderHelp());
    int exitCode = 0;
    RegisterDetectCommand(app, exitCode);
    RegisterSampleCommand(app, exitCode);
    RegisterStreamCommand(app, exitCode);
    RegisterMobiledCommand(app, exitCode);
    RegisterLiveCamCommand(app, exitCode);
    RegisterIOActionCommand(app, exitCode);
    RegisterAudioOutCommand(app, exitCode);
    RegisterAudioFeedCommand(app, exitCode);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // Usage errors: CLI11 prints the message naming the bad option or value.
        const int rc = app.exit(e);
        return rc == 0 ? 0 : 2;
    }
    return exitCode;
}
