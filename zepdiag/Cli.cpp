#include "Cli.h"

#include <set>

namespace zepdiag {
namespace {

std::optional<Command> CommandNamed(const std::string& name) {
    if (name == "init") return Command::Init;
    if (name == "scan") return Command::Scan;
    if (name == "notify") return Command::Notify;
    if (name == "online") return Command::Online;
    if (name == "history") return Command::History;
    if (name == "serve") return Command::Serve;
    if (name == "help") return Command::Help;
    return std::nullopt;
}

// The options each command accepts; anything else is a usage error rather
// than silently ignored, so a typo cannot run a different scan than meant.
std::set<std::string> OptionsOf(Command command) {
    switch (command) {
        case Command::Scan: return {"--device", "--scheduled", "--native", "--json", "--no-wait"};
        case Command::Notify: return {"--device", "--payload", "--json", "--no-wait"};
        case Command::Online: return {"--device", "--json", "--no-wait"};
        case Command::History: return {"--device", "--json"};
        case Command::Init: return {"--device", "--no-wait"};
        case Command::Serve: return {"--device", "--broker", "--upload-url", "--ca", "--cert", "--key"};
        case Command::Help: break;
    }
    return {};
}

bool* FlagNamed(Options& options, const std::string& name) {
    if (name == "--scheduled") return &options.scheduled;
    if (name == "--native") return &options.native;
    if (name == "--json") return &options.json;
    if (name == "--no-wait") return &options.noWait;
    return nullptr;
}

std::string* ValueNamed(Options& options, const std::string& name) {
    if (name == "--device") return &options.device;
    if (name == "--payload") return &options.payload;
    if (name == "--broker") return &options.serve.broker;
    if (name == "--upload-url") return &options.serve.uploadUrl;
    if (name == "--ca") return &options.serve.ca;
    if (name == "--cert") return &options.serve.cert;
    if (name == "--key") return &options.serve.key;
    return nullptr;
}

ParsedCommandLine Fail(std::string error) { return ParsedCommandLine{std::nullopt, std::move(error)}; }

}  // namespace

ParsedCommandLine ParseCommandLine(const std::vector<std::string>& args) {
    Options options;
    for (const auto& arg : args) {
        if (arg == "--help" || arg == "-h") return ParsedCommandLine{options, ""};
    }
    if (args.empty()) return Fail("no command given");

    const auto command = CommandNamed(args[0]);
    if (!command) return Fail("unknown command '" + args[0] + "'");
    options.command = *command;
    const auto accepted = OptionsOf(*command);

    bool payloadGiven = false;
    for (std::size_t i = 1; i < args.size(); ++i) {
        std::string name = args[i];
        std::optional<std::string> value;
        if (const auto equals = name.find('='); name.rfind("--", 0) == 0 && equals != std::string::npos) {
            value = name.substr(equals + 1);
            name.resize(equals);
        }
        if (accepted.count(name) == 0) {
            return Fail("unknown option '" + name + "' for '" + args[0] + "'");
        }
        if (bool* flag = FlagNamed(options, name)) {
            if (value) return Fail(name + " takes no value");
            *flag = true;
            continue;
        }
        if (!value) {
            if (i + 1 >= args.size()) return Fail(name + " needs a value");
            value = args[++i];
        }
        // An empty payload is a request too: it asks for the agent's scan.
        if (value->empty() && name != "--payload") return Fail(name + " needs a value");
        *ValueNamed(options, name) = *value;
        payloadGiven = payloadGiven || name == "--payload";
    }
    if (options.command == Command::Notify && !payloadGiven) return Fail("notify needs --payload JSON");
    return ParsedCommandLine{options, ""};
}

std::string UsageText() {
    return R"(Usage: zepdiag <command> [options]

Runs the ZEP agent's diagnostics module on a device folder: a directory that
holds a device's state (device.json), registry (registry.reg), application
data (programdata/) and temporary folder (temp/).

Commands:
  init     Create a demo device folder. An existing device folder is left
           unchanged; any other non-empty folder is refused. On Windows the
           device's registry.reg is then imported into the registry (with
           regedit.exe, so run it elevated), where the module reads it.
  scan     Run a diagnostics scan as the agent's service starts one, and
           print the built-in component's result.
  notify   Deliver a getDiagnostics request through the notification hub, as
           the cloud sends it over MQTT, and print the result of the scan.
           A target other than "zep" names a plug-in (DIR/plugins/<name>/):
           its running instances are asked too, and their results, zips,
           uploads and history lines are printed after the agent's.
  online   Deliver the "device is online" notification, which completes the
           uploads that offline scans and plug-in requests deferred, and
           print what it uploaded.
  history  Print the scan history, newest scan last.
  serve    (Linux) Run as the device's service until SIGTERM or SIGINT: take the
           cloud's requests from the MQTT broker (topic
           zep/<deviceId>/notifications, QoS 1), and upload over HTTPS.
           Messages are JSON envelopes of a hub notification:
           {"topicId": 1, "eventState": 0, "actionType": "run",
            "messageType": "getDiagnostics", "payload": "<JSON text>"}
           Each reconnection after a lost connection delivers the device-
           online notification. A first SIGTERM lets a running scan finish
           (up to 60 s); a second one ends the service at once.
  help     Show this text.

After a scan, scan and notify also print what was uploaded (the device's
storage agent keeps a copy of each upload in DIR/outbox/NNNN/), the line the
scan added to the scan history, and the critical events it logged
(DIR/events.log). DIR/upload-results forces the answers of the next uploads,
one code per line (for example 429 for "come back later", 10 for offline).

Options:
  --device DIR     The device folder (default: ./zep-device). scan, notify,
                   online and serve create a demo device there when it is
                   missing or empty; history only reads it.
  --scheduled      scan: run it as a scheduled scan instead of a manual one.
  --native         scan: collect and pack with the module's own code instead
                   of PowerShell (Windows scans the PowerShell way by default;
                   on Linux the native way is the only one).
  --no-wait        init, scan, notify, online: when another zepdiag is using
                   the device folder, exit with status 3 instead of waiting.
  --payload JSON   notify: the request's payload, for example
                   '{"zep-message":{"action":{"cmd_param":{"requestId":"r1","target":["zep"]}}}}'
  --json           scan, notify, online, history: print one JSON document
                   with the same facts instead of the text.
  -h, --help       Show this text.

Options of serve (each defaults to the device's platform policy,
DIR/platform-policy.json):
  --broker URL      mqtt://HOST[:1883] or mqtts://HOST[:8883]
                    (default: mqtt_baseuri).
  --upload-url URL  https://... receiving the uploads (default: api_baseuri
                    + /diagnostics/upload; with neither, uploads stay in
                    DIR/outbox/).
  --ca FILE         The trusted roots, PEM (default: mqtt_chain_pem64, else
                    the system's). tls_rootca_thumbprint_list,
                    tls_leaf_cn_list and allow_self_signed_cert apply too.
  --cert FILE --key FILE
                    A client certificate and its key, PEM, for mutual TLS.

Exit status: 0 when the command ran (whatever the scan found) or the service
stopped on request, 2 for a usage error or a folder that cannot be used as a
device folder (or, for serve, settings that cannot be used), 3 when --no-wait
found the device folder in use, 1 otherwise.
)";
}

}  // namespace zepdiag
