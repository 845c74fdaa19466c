// tshark with the trdcomp plugin, as the tests and the benchmark run it: the
// plugin copied into a scratch plugin folder laid out as Wireshark looks for
// it (4.0/epan/trdcomp.so) with the libraries it loads beside it, and tshark
// run as an unprivileged user when the caller is root (tshark as root ignores
// WIRESHARK_PLUGIN_DIR), with dissector bugs fatal.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace tshark {

namespace fs = std::filesystem;

struct Result {
    int status = -1;  // tshark's exit status, -1 when it did not exit normally
    std::string out, err;
};

inline std::string Quote(const std::string& s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

inline std::string ReadAll(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

class Runner {
public:
    // `plugin`: the built trdcomp.so; `libraries`: the shared libraries it
    // needs from the build tree; `series`: "4.0".
    Runner(const fs::path& plugin, const std::vector<fs::path>& libraries, const std::string& series) {
        char pattern[] = "/tmp/trdcomp_tshark_XXXXXX";
        if (::mkdtemp(pattern) == nullptr) throw std::runtime_error("cannot make a scratch folder");
        dir_ = pattern;
        const fs::path epan = dir_ / "plugins" / series / "epan";
        fs::create_directories(epan);
        fs::create_directories(dir_ / "lib");
        fs::create_directories(dir_ / "home");
        fs::create_directories(dir_ / "empty" / series / "epan");
        fs::copy_file(plugin, epan / "trdcomp.so");
        for (const fs::path& lib : libraries) fs::copy_file(lib, dir_ / "lib" / lib.filename());
        // The unprivileged user reads the plugin and the captures, and writes
        // its output here.
        for (const auto& e : fs::recursive_directory_iterator(dir_))
            fs::permissions(e.path(), fs::perms::all, fs::perm_options::add);
        fs::permissions(dir_, fs::perms::all, fs::perm_options::add);
    }
    ~Runner() {
        std::error_code ignored;
        fs::remove_all(dir_, ignored);
    }
    Runner(const Runner&) = delete;
    Runner& operator=(const Runner&) = delete;

    const fs::path& Dir() const { return dir_; }

    // A file in the scratch folder that tshark can read.
    fs::path Place(const std::string& name, const std::vector<char>& bytes) const {
        const fs::path p = dir_ / name;
        std::ofstream(p, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        fs::permissions(p, fs::perms::all, fs::perm_options::add);
        return p;
    }

    // Runs `program` (tshark, editcap) with `args`; `plugin` false runs it
    // with an empty plugin folder.
    Result Run(const std::string& program, const std::vector<std::string>& args, bool plugin = true) const {
        const fs::path out = dir_ / "out", err = dir_ / "err";
        std::string cmd;
        if (::geteuid() == 0) cmd += "setpriv --reuid=nobody --regid=nogroup --clear-groups ";
        for (const std::string& part :
             {std::string("env HOME="), Quote((dir_ / "home").string()), std::string(" WIRESHARK_PLUGIN_DIR="),
              Quote((dir_ / (plugin ? "plugins" : "empty")).string()), std::string(" LD_LIBRARY_PATH="),
              Quote((dir_ / "lib").string()), std::string(" WIRESHARK_ABORT_ON_DISSECTOR_BUG=1 "), Quote(program)})
            cmd += part;
        for (const std::string& a : args) cmd.append(" ").append(Quote(a));
        cmd.append(" > ").append(Quote(out.string())).append(" 2> ").append(Quote(err.string())).append(" < /dev/null");
        const int raw = std::system(cmd.c_str());
        Result r;
        r.status = raw != -1 && WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
        r.out = ReadAll(out);
        r.err = ReadAll(err);
        return r;
    }

private:
    fs::path dir_;
};

}  // namespace tshark
