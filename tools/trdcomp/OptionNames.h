// How a caller of the message library names the choices its messages point
// to ("say --id", "... with --frame"): the tool's flags unless the caller
// has words of its own (the Python module's keyword arguments).
#pragma once

namespace tool {

struct OptionNames {
    const char* direction = "--request or --answer";  // which direction a message without one is
    const char* id = "--id";                          // the function id of a head without one
    const char* coding = "--coding";                  // the coding of a message without one
    const char* classic = "--classic";                // pack what the coding cannot carry as the classic members do
    const char* frame = "--frame";                    // the transport's length prefix of a stream
};

}  // namespace tool
