// trdcomp: look inside, build and check messages of the trdcomp codecs.
#include <CLI/CLI.hpp>

#include <csignal>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <utility>

#include "Commands.h"
#include "Input.h"
#include "Message.h"
#include "trdcomp/trdcomp.hpp"

namespace {

// --max-bytes: checked while parsing, so that a bad value is a command-line mistake.
const CLI::Validator kByteLimit(
    [](std::string& text) {
        try {
            tool::ParseByteLimit(text);
            return std::string();
        } catch (const std::exception& e) {
            return std::string(e.what());
        }
    },
    "BYTES");

const CLI::Validator kFunctionId(
    [](std::string& text) {
        const bool digits = !text.empty() && text.size() <= 10 && text.find_first_not_of("0123456789") == std::string::npos;
        if (digits && std::stoll(text) >= 1 && std::stoll(text) <= 2147483647) return std::string();
        return "a function id is expected (a number from 1 to 2147483647), not \"" + text + "\"";
    },
    "ID");

const char* const kMaxBytesHelp =
    "Refuse a message whose restore would need more than this many bytes, before allocating (K, M, G: KiB, MiB, GiB; "
    "0 or unlimited: no limit)";
const char* const kStrictHelp =
    "Also refuse what the classic restore quietly accepts: a message that ends inside a record, bytes after the last "
    "record, a count the stream does not hold";

// The options of every command that reads messages: how they are restored,
// and where many come from and which of them count.
void AddFeedOptions(CLI::App* cmd, tool::FeedOptions& o) {
    cmd->add_option("--flag", o.flag, "The 2008 coding's flag to restore with (0, 1, ...)")->check(CLI::Range(-128, 127))->capture_default_str();
    cmd->add_option("--max-bytes", o.maxBytes, kMaxBytesHelp)->check(kByteLimit)->capture_default_str();
    cmd->add_flag("--strict", o.strict, kStrictHelp);
    cmd->add_flag("--stream", o.stream,
                  "The input holds messages back to back: cut them by their own lengths (or --frame), each as soon as its "
                  "last byte has come");
    cmd->add_option("--frame", o.frame,
                    "Each message follows a transport length prefix (message length, prefix excluded): u32le, u32be, "
                    "u16le or u16be; `message` cuts by the messages' own lengths (implies --stream)")
        ->check(CLI::IsMember({"message", "u32le", "u32be", "u16le", "u16be"}));
    auto* pcap = cmd->add_flag("--pcap", o.pcap,
                               "The input is a pcap or pcapng capture (- for standard input: tcpdump -U -w - ... | trdcomp ... "
                               "--pcap -): the messages of each direction of each TCP connection, reassembled");
    cmd->add_option("--port", o.port, "With --pcap: only connections with this TCP port at either end")
        ->check(CLI::Range(1, 65535))
        ->needs(pcap);
    cmd->add_flag("--follow", o.follow, "Keep reading a file that grows (as tail -f does), until interrupted");
    cmd->add_option("--id", o.ids, "Only these function ids: a list such as 1002,1003,1100-1120");
    cmd->add_option("--dir", o.dir, "Only requests or only answers")->check(CLI::IsMember({"request", "answer"}));
}

// An interrupt while a stream or capture is read ends the reading: what was
// read is summed up.
// A second interrupt ends the tool at once.
void StopReading(int) {
    tool::InputFile::Stop();
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"trdcomp: pack, restore and inspect trading messages in the 2008 and Fast codings"};
    app.require_subcommand(1);
    // The tool's own version (the headers it was built with), the library's
    // it loaded and that library's catalogue fingerprint.
    app.set_version_flag("--version", [] {
        return std::string("trdcomp ") + TRDCOMP_VERSION + ", library " + trdcomp::Version() + ", catalogue " +
               tool::HashText(trdcomp::CatalogueHash());
    });

    tool::DemoOptions demo;
    auto* demoCmd = app.add_subcommand(
        "demo", "Pack and restore a realistic request and answer of every function id with a codec, in both codings, "
                "and print a table of sizes and checks (exit status 1 on any mismatch)");
    demoCmd->add_option("--id", demo.id, "Only this function id");
    demoCmd->add_flag("--quiet", demo.quiet, "Print only mismatches and the totals");

    tool::DecodeOptions decode;
    auto* decodeCmd = app.add_subcommand(
        "decode", "Restore a message (request: head word 0 = 76, answer: 96) through the library and print its head and "
                  "every record field by field; or each message of a stream or capture as soon as its last byte has come");
    decodeCmd->add_option("file", decode.file, "The message, stream or capture, or - for standard input")->capture_default_str();
    decodeCmd->add_flag("--hex", decode.hex, "The input is hex text (white space between bytes allowed)");
    decodeCmd->add_flag("--json", decode.json, "Print JSON (the input of `trdcomp encode`) instead of a table");
    decodeCmd->add_flag("--jsonl", decode.jsonl,
                        "Streams and captures: one JSON object a line a message (where it was found, the message as --json "
                        "prints it, or the refusal and its reason); reports go to standard error");
    decodeCmd->add_flag("--sent", decode.sent,
                        "Fast coding: mark each field as sent, taken from the previous record, or the default");
    decodeCmd->add_option("--threads", decode.threads,
                          "Streams and captures: threads that decode and write out the messages beside the one that reads "
                          "(default: one a core; 0: the reading thread does it all)")
        ->check(CLI::Range(0, 64));
    AddFeedOptions(decodeCmd, decode);

    tool::FeedOptions stats;
    auto* statsCmd = app.add_subcommand(
        "stats", "Count the messages of a stream or capture: messages, bytes and records per direction, id and coding, "
                 "refusals by reason, coded against restored size, connections and gaps, messages a second");
    statsCmd->add_option("file", stats.file, "The stream or capture, or - for standard input")->capture_default_str();
    AddFeedOptions(statsCmd, stats);

    tool::DiffOptions diff;
    auto* diffCmd = app.add_subcommand(
        "diff", "Compare two messages field by field after restoring them: exit status 0 when they restore "
                "identically, 1 when they differ, 2 on error");
    diffCmd->add_option("a", diff.a, "The first message (- for standard input)")->required();
    diffCmd->add_option("b", diff.b, "The second message")->required();
    diffCmd->add_flag("--hex", diff.hex, "Both inputs are hex text (without it, each is read as hex text when its bytes are)");
    diffCmd->add_flag("--hex-a", diff.hexA, "The first input is hex text");
    diffCmd->add_flag("--hex-b", diff.hexB, "The second input is hex text");
    diffCmd->add_option("--flag", diff.flag, "The 2008 coding's flag to restore with")->check(CLI::Range(-128, 127));
    diffCmd->add_option("--max-bytes", diff.maxBytes, kMaxBytesHelp)->check(kByteLimit)->capture_default_str();
    diffCmd->add_flag("--strict", diff.strict, kStrictHelp);

    tool::EncodeCommandOptions encode;
    auto* encodeCmd = app.add_subcommand(
        "encode", "Pack a message from JSON (the shape `trdcomp decode --json` prints) and write its bytes");
    auto* req = encodeCmd->add_flag("--request", encode.request, "Pack a request (default: the JSON's direction)");
    encodeCmd->add_flag("--answer", encode.answer, "Pack an answer")->excludes(req);
    encodeCmd->add_option("--id", encode.id, "Function id (default: the JSON head's nFuncId)")->check(CLI::Range(0LL, 2147483647LL));
    encodeCmd->add_option("--coding", encode.coding, "2008, fast or fast:V with V from 1 to 15 (default: the JSON's coding)");
    encodeCmd->add_option("--flag", encode.flag, "The 2008 coding's flag (default: the JSON's flag)")->check(CLI::Range(-128, 127));
    encodeCmd->add_option("--in", encode.in, "JSON input file, or - for standard input")->capture_default_str();
    encodeCmd->add_option("--out", encode.out, "Output file, or - for standard output")->capture_default_str();
    encodeCmd->add_flag("--hex", encode.hex, "Write the message as hex text");
    encodeCmd->add_flag("--classic", encode.classic,
                        "Pack what the classic members pack, also values the coding cannot carry (a byte of 0x80 or above in "
                        "a Fast ascii field, which garbles the fields behind it on restore)");

    int catalogueId = 0;
    bool catalogueHash = false;
    auto* catalogueCmd = app.add_subcommand(
        "catalogue", "List the function ids with the codec each direction and coding uses, or one id's layouts field by field");
    auto* idOption = catalogueCmd->add_option("id", catalogueId, "Show this function id in detail")->check(kFunctionId);
    catalogueCmd
        ->add_flag("--hash", catalogueHash,
                   "Print the fingerprint of the library's catalogue (16 hex digits): two ends that print the same code "
                   "every function id alike")
        ->excludes(idOption);

    // A first word that is no option must name a subcommand.
    if (argc > 1 && argv[1][0] != '-') {
        std::string names;
        bool known = false;
        for (const CLI::App* sub : std::as_const(app).get_subcommands({})) {
            names += (names.empty() ? "" : ", ") + sub->get_name();
            known |= sub->get_name() == argv[1];
        }
        if (!known) {
            std::cerr << "trdcomp: there is no subcommand \"" << argv[1] << "\"; the subcommands are " << names
                      << " (trdcomp --help)\n";
            return static_cast<int>(CLI::ExitCodes::ExtrasError);
        }
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int rc = app.exit(e);
        // diff reserves 1 for "the messages differ"
        return rc != 0 && *diffCmd ? 2 : rc;
    }
    const std::string name = app.get_subcommands().front()->get_name();
    if ((*decodeCmd && (decode.stream || decode.pcap || decode.follow || !decode.frame.empty())) || *statsCmd) {
        struct sigaction stop {};
        stop.sa_handler = StopReading;
        sigaction(SIGINT, &stop, nullptr);  // no SA_RESTART: a waiting read returns
        sigaction(SIGTERM, &stop, nullptr);
    }
    try {
        if (*demoCmd) return tool::RunDemo(demo);
        if (*decodeCmd) return tool::RunDecode(decode, std::cout, std::cerr);
        if (*statsCmd) return tool::RunStats(stats, std::cout, std::cerr);
        if (*diffCmd) return tool::RunDiff(diff, std::cout);
        if (*encodeCmd) return tool::RunEncode(encode);
        if (catalogueHash) {
            std::cout << tool::HashText(trdcomp::CatalogueHash()) << "\n";
            return 0;
        }
        return tool::RunCatalogue(catalogueId);
    } catch (const tool::Refused& e) {
        std::cerr << "trdcomp " << name << ": the library refused the message: " << e.what() << "\n";
    } catch (const std::exception& e) {
        std::cerr << "trdcomp " << name << ": " << e.what() << "\n";
    }
    return *diffCmd ? 2 : 1;
}
