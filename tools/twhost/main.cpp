// twhost: the reference host of the device plug-in. Loads the plug-in and drives its worker
// objects on real inputs, one subcommand per worker.
#include <signal.h>

#include <cstdio>
#include <cstring>
#include <string>

extern "C" {
#include <libavutil/log.h>
}

#include "cliutil.h"
#include "commands.h"
#include "twhost/plugin.h"
#include "version.h"

namespace {

// CLI11's errors, prefixed with the command they belong to, and pointing at its help.
std::string FailureMessage(const CLI::App* app, const CLI::Error& e) {
    std::string cmd = "twhost";
    std::string help = "twhost help";
    for (const CLI::App* sub : app->get_subcommands()) {
        cmd += " " + sub->get_name();
        help += " " + sub->get_name();
    }
    return cmd + ": " + e.what() + "\nRun '" + help + "' for more information.\n";
}

bool IsCommand(const CLI::App& app, const std::string& name) {
    for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; })) {
        if (sub->get_name() == name) return true;
    }
    return false;
}

std::string CommandList(const CLI::App& app) {
    std::string names;
    for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; })) {
        names += (names.empty() ? "" : ", ") + sub->get_name();
    }
    return names;
}

int UnknownCommand(const CLI::App& app, const std::string& name) {
    fprintf(stderr, "twhost: unknown command '%s' (commands: %s)\nRun 'twhost help' for more information.\n",
            name.c_str(), CommandList(app).c_str());
    return twcli::kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
    // FFmpeg's own chatter is not for twhost's users; its errors still show.
    av_log_set_level(AV_LOG_ERROR);
    // A reader that goes away is noticed as EPIPE on the write and ends the run quietly,
    // after clean-up, instead of killing the process in the middle of it.
    signal(SIGPIPE, SIG_IGN);

    CLI::App app{"twhost - reference host of the device plug-in", "twhost"};
    app.require_subcommand(1);
    app.failure_message(FailureMessage);
    app.footer("Run 'twhost help COMMAND' for the options of a command, 'twhost --version' for versions.\n"
               "Exit codes: 0 success, 1 failure of the input or the run, 2 usage, 130/143 after "
               "SIGINT/SIGTERM, 141 when the reader of standard output went away.\n" +
               tw::host::PluginModule::SearchOrderHelp());
    int exitCode = 0;
    RegisterDetectCommand(app, exitCode);
    RegisterSampleCommand(app, exitCode);
    RegisterStreamCommand(app, exitCode);
    RegisterMobiledCommand(app, exitCode);
    RegisterLiveCamCommand(app, exitCode);
    RegisterIOActionCommand(app, exitCode);
    RegisterAudioOutCommand(app, exitCode);
    RegisterAudioFeedCommand(app, exitCode);
    RegisterRegionCommand(app, exitCode);

    twcli::Out& out = twcli::Out::Get();
    if (argc >= 2) {
        const std::string first = argv[1];
        if (first == "--version" || first == "-V") {
            const std::string text = VersionText();
            out.Text(text.substr(0, text.size() - 1));
            return out.Finish("twhost", twcli::kExitOk);
        }
        if (first == "help") {
            if (argc == 2) {
                out.Text(app.help());
                return out.Finish("twhost", twcli::kExitOk);
            }
            if (!IsCommand(app, argv[2])) return UnknownCommand(app, argv[2]);
            out.Text(app.get_subcommand(argv[2])->help());
            return out.Finish("twhost", twcli::kExitOk);
        }
        if (!first.empty() && first[0] != '-' && !IsCommand(app, first)) return UnknownCommand(app, first);
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int rc = app.exit(e);
        // --help is a success; anything else CLI11 refuses is bad usage.
        return out.Finish("twhost", rc == 0 ? twcli::kExitOk : twcli::kExitUsage);
    }
    std::string cmd = "twhost";
    for (const CLI::App* sub : app.get_subcommands()) cmd += " " + sub->get_name();
    return out.Finish(cmd.c_str(), exitCode);
}
