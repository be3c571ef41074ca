#include "klSlurmJob.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace {

// scontrol asks slurmctld; a controller that does not answer within this is as good as none.
constexpr int kScontrolSeconds = 60;

std::string environment(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

// Runs scontrol with the arguments given and returns its standard output; throws when it cannot
// be run, does not end in time or ends with a failure status.
std::string scontrol(const std::vector<std::string>& arguments) {
    std::vector<std::string> all{"scontrol"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& argument : all) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    std::string command;
    for (const std::string& argument : all) {
        command += (command.empty() ? "" : " ") + argument;
    }

    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) {
        throw std::runtime_error(std::string("cannot create a pipe: ") + std::strerror(errno));
    }
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    pid_t pid = -1;
    const int failed = ::posix_spawnp(&pid, "scontrol", &actions, nullptr, argv.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    if (failed != 0) {
        ::close(out[0]);
        throw std::runtime_error("cannot run scontrol: " + std::string(std::strerror(failed)));
    }
    std::string text;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kScontrolSeconds);
    bool timedOut = false;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now())
                              .count();
        pollfd wait{out[0], POLLIN, 0};
        if (left <= 0 || ::poll(&wait, 1, int(left)) == 0) {
            timedOut = true;
            ::kill(pid, SIGKILL);
            break;
        }
        char chunk[4096];
        const ssize_t n = ::read(out[0], chunk, sizeof(chunk));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        text.append(chunk, std::size_t(n));
    }
    ::close(out[0]);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (timedOut) {
        throw std::runtime_error("'" + command + "' did not answer within " +
                                 std::to_string(kScontrolSeconds) + " s");
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw std::runtime_error("'" + command + "' failed");
    }
    return text;
}

bool isNodeName(const std::string& text) {
    static const std::regex form(R"([A-Za-z0-9][A-Za-z0-9._-]{0,63})");
    return std::regex_match(text, form);
}

// A host name, an IPv4 or an IPv6 address.
bool isAddress(const std::string& text) {
    static const std::regex form(R"([A-Za-z0-9.:_-]{1,253})");
    return std::regex_match(text, form);
}

}  // namespace

bool klSlurmJob::inAllocation() {
    return !environment("SLURM_JOB_ID").empty();
}

klSlurmJob klSlurmJob::current() {
    klSlurmJob job;
    job.m_id = environment("SLURM_JOB_ID");
    std::string list = environment("SLURM_JOB_NODELIST");
    if (list.empty()) {
        list = environment("SLURM_NODELIST");
    }
    if (job.m_id.empty() || list.empty()) {
        throw std::runtime_error("SLURM_JOB_ID or SLURM_JOB_NODELIST is not set");
    }
    std::istringstream names(scontrol({"show", "hostnames", list}));
    for (std::string name; std::getline(names, name);) {
        if (!isNodeName(name)) {
            throw std::runtime_error("'scontrol show hostnames' named a node '" + name +
                                     "' that is not a node name");
        }
        job.m_nodes.push_back({name, ""});
    }
    if (job.m_nodes.empty()) {
        throw std::runtime_error("'scontrol show hostnames " + list + "' named no node");
    }
    // One line per node: "NodeName=n1 Arch=... NodeAddr=127.0.0.1 NodeHostName=...".
    std::istringstream records(scontrol({"--oneliner", "show", "node", list}));
    static const std::regex nameField(R"((?:^| )NodeName=(\S+))");
    static const std::regex addressField(R"( NodeAddr=(\S+))");
    for (std::string record; std::getline(records, record);) {
        std::smatch name, address;
        if (!std::regex_search(record, name, nameField) ||
            !std::regex_search(record, address, addressField)) {
            continue;
        }
        for (Node& node : job.m_nodes) {
            if (node.name == name[1].str()) {
                if (!isAddress(address[1].str())) {
                    throw std::runtime_error("node " + node.name + " has an address that is not " +
                                             "one to connect to");
                }
                node.address = address[1].str();
            }
        }
    }
    for (const Node& node : job.m_nodes) {
        if (node.address.empty()) {
            throw std::runtime_error("'scontrol show node' gave no NodeAddr for " + node.name);
        }
    }
    return job;
}

std::vector<std::string> klSlurmJob::names() const {
    std::vector<std::string> all;
    for (const Node& node : m_nodes) {
        all.push_back(node.name);
    }
    return all;
}
