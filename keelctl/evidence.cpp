#include "keelctl/evidence.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <vector>

#include "keelctl/archive.h"
#include "keelctl/diagnosis.h"
#include "keelctl/drawing.h"
#include "keelctl/masking.h"
#include "keelctl/output.h"
#include "keelctl/status.h"

namespace keelctl {

namespace {

constexpr std::size_t longest_output = std::size_t{4} << 20; /* of one program or file */
constexpr unsigned all_traces = 2000;

/* What is run: the name of its text, and the command for the shell. */
struct Look {
    const char *name;
    const char *command;
};

const Look looks[] = {
    {"iptables.txt", "iptables-save -c"},
    {"ebtables.txt", "ebtables-save"},
    {"addresses.txt", "ip -d address"},
    {"routes.txt", "ip route show table all"},
    {"routing-rules.txt", "ip rule"},
    {"neighbours.txt", "ip -s neigh"},
    {"multicast-routes.txt", "ip mroute"},
    {"multicast-addresses.txt", "ip maddr"},
    {"bridge-ports.txt", "bridge -d link"},
    {"bridge-addresses.txt", "bridge fdb"},
    {"bridge-groups.txt", "bridge -d mdb"},
    {"bridge-vlans.txt", "bridge vlan"},
    {"udp-ports.txt", "ss -ulpn"},
    {"versions/system.txt", "uname -a; cat /etc/os-release"},
    {"versions/iptables.txt", "iptables --version"},
    {"versions/ebtables.txt", "ebtables --version"},
    {"versions/iproute.txt", "ip -V"},
    {"versions/udhcpc.txt", "udhcpc --help"},
    {"versions/igmpproxy.txt", "igmpproxy --help"},
};

/* What a command prints, both streams; at its end how it ended, unless well. */
std::string output_of(const std::string &command) {
    std::string text = "$ " + command + "\n";
    /* Each part of it has its own ten seconds. */
    FILE *pipe = popen(("{ timeout -k 1 10 sh -c '" + command + "'; } 2>&1 </dev/null").c_str(), "re");
    if (!pipe)
        return text + "[cannot be started]\n";
    char buffer[65536];
    std::size_t size = 0;
    while ((size = std::fread(buffer, 1, sizeof buffer, pipe)) > 0)
        if (text.size() < longest_output)
            text.append(buffer, size);
    if (text.size() >= longest_output)
        text += "\n[more was printed, and is left out]\n";
    const int ended = pclose(pipe);
    const int status = WIFEXITED(ended) ? WEXITSTATUS(ended) : 128 + WTERMSIG(ended);
    if (status != 0)
        text += "[exit status " + std::to_string(status) +
                (status == 127   ? ": there is no such program"
                 : status == 124 ? ": it did not end within 10 s"
                                 : "") +
                "]\n";
    return text;
}

std::string content_of(const std::filesystem::path &path) {
    std::ifstream file(path, std::ios::binary);
    std::string text(longest_output, '\0');
    if (!file.read(text.data(), static_cast<std::streamsize>(text.size())) && !file.eof())
        return "[" + path.string() + " cannot be read]\n";
    text.resize(static_cast<std::size_t>(file.gcount()));
    return text;
}

/* Client identifiers stand in a few places of the model. */
void learn_identifiers(Masking &masking, const Json &tree, const std::string &above) {
    const std::string name = tree.value("name", "");
    if (above == "Lease" || above == "Waiting")
        masking.learn_identifier(name);
    for (const char *parameter : {"ClientID", "Id"})
        masking.learn_identifier(text(tree, parameter));
    if (above == "SentOption" && name == "61")
        masking.learn_identifier(text(tree, "Value"));
    for (const Json &one : tree["children"])
        learn_identifiers(masking, one, name);
}

class Evidence {
public:
    Evidence(Client &client, std::string folder) : client_(client), folder_(std::move(folder)) {}

    void gather() {
        add_told("status.txt", [this] {
            client_.look(); /* first: all that follows is of this moment */
            return print_status(gather_status(client_), false);
        });
        add_told("status.json", [this] { return gather_status(client_).dump(2) + "\n"; });
        add_told("why.txt", [this] { return why(); });
        add_told("model.txt", [this] { return tree_text(client_.tree(""), ""); });
        add_told("traces.txt", [this] { return traces(); });
        add_told("timeline.html", [this] { return draw_page(gather_story(client_, 0)); });
        add_daemon();
        for (const Look &look : looks)
            add(look.name, [&look] { return output_of(look.command); });
    }

    std::vector<ArchivedText> texts(bool full) {
        if (full)
            return texts_;
        Masking masking;
        for (const ArchivedText &one : texts_)
            masking.learn(one.text);
        if (reached_)
            learn_identifiers(masking, client_.tree(""), "");
        for (ArchivedText &one : texts_)
            one.text = masking.masked(one.text);
        return texts_;
    }

    bool reached() const { return reached_; }

private:
    void add(const std::string &name, const std::function<std::string()> &make) {
        std::string made;
        try {
            made = make();
        } catch (const std::exception &failure) {
            made = std::string("[cannot be had: ") + failure.what() + "]\n";
            reached_ = reached_ && dynamic_cast<const Unreachable *>(&failure) == nullptr;
        }
        texts_.push_back({folder_ + "/" + name, made});
    }

    /* What the host tells; once it does not answer, it is not waited for again. */
    void add_told(const std::string &name, const std::function<std::string()> &make) {
        add(
            name, reached_ ? make : [] { return std::string("[cannot be had: the host does not answer]\n"); });
    }

    std::string why() {
        Gateway gateway(client_, Gateway::Devices::All);
        std::string told;
        for (const Device &device : gateway.devices)
            told += print_diagnosis(gateway, device, diagnose(gateway, device)) + "\n";
        return told.empty() ? "no device is known\n" : told;
    }

    std::string traces() {
        client_.send({{"op", "trace"}, {"lines", all_traces}});
        std::string told;
        for (auto line = client_.next(); line && !line->contains("ok"); line = client_.next())
            told += trace_text(*line);
        return told;
    }

    /* How the daemon was started, how it is, and the files that it was told of. */
    void add_daemon() {
        std::vector<std::string> words;
        std::filesystem::path process;
        add("daemon/command.txt", [&] {
            process = "/proc/" + std::to_string(client_.host_process());
            std::istringstream line(content_of(process / "cmdline"));
            std::string told;
            for (std::string word; std::getline(line, word, '\0');) {
                words.push_back(word);
                told += word + "\n";
            }
            return told;
        });
        if (words.empty())
            return;
        add("versions/keelhost.txt", [&] { return output_of((process / "exe").string() + " --version"); });
        add("daemon/process.txt", [&] { return content_of(process / "status"); });
        std::error_code none;
        std::vector<std::filesystem::path> files;
        for (std::size_t i = 0; i + 1 < words.size(); ++i)
            for (const char *option : {"--model", "--config", "--settings"})
                if (words[i] == option)
                    files.emplace_back(words[i + 1]);
        for (const auto &one : std::filesystem::directory_iterator("/etc/keel", none))
            files.push_back(one.path());
        for (const std::filesystem::path &file : files) {
            /* As the daemon sees it: a relative name counts from its folder. */
            const auto seen = file.is_absolute() ? file : process / "cwd" / file;
            if (std::filesystem::is_regular_file(seen, none))
                add("daemon/" + file.filename().string(), [&] { return content_of(seen); });
        }
    }

    Client &client_;
    std::string folder_;
    std::vector<ArchivedText> texts_;
    bool reached_ = true;
};

} // namespace

std::string timed_name(const std::string &what, const std::string &ending) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char time[32];
    std::strftime(time, sizeof time, "%Y%m%d-%H%M%S", &local);
    return "keel-" + what + "-" + time + ending;
}

bool collect_evidence(Client &client, const std::string &file, bool full) {
    /* The system's folders, which an ordinary user's path lacks. */
    const char *path = std::getenv("PATH");
    setenv("PATH", ((path ? path : "/usr/bin:/bin") + std::string(":/usr/local/sbin:/usr/sbin:/sbin")).c_str(), 1);
    setenv("LC_ALL", "C", 1);
    Evidence evidence(client, timed_name("diagnose", ""));
    evidence.gather();
    write_archive(file, evidence.texts(full), std::time(nullptr));
    return evidence.reached();
}

} // namespace keelctl
