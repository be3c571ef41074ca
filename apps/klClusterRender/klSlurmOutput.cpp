#include "klSlurmOutput.h"

#include <klLog.h>

#include <algorithm>
#include <regex>

namespace {

// A message quotes at most this much of a line it did not understand.
constexpr std::size_t kMaxQuoted = 200;

std::string escaped(const std::string& text) {
    std::string out;
    klLog::appendEscaped(out, text.substr(0, kMaxQuoted), false);
    if (text.size() > kMaxQuoted) {
        out += "...";
    }
    return out;
}

// A rank of the step: decimal, below tasks.
bool readRank(const std::string& text, int tasks, int& rank) {
    if (text.empty() || text.size() > 6) {
        return false;
    }
    rank = std::stoi(text);
    return rank < tasks;
}

}  // namespace

klSlurmOutput::klSlurmOutput(int tasks, std::vector<std::string> nodes)
    : m_nodes(std::move(nodes)), m_tasks(std::size_t(std::max(tasks, 0))) {}

klSlurmOutput::Line klSlurmOutput::parse(const std::string& line, int tasks,
                                         const std::vector<std::string>& nodes) {
    static const std::regex labelled(R"(^ *([0-9]+): (.*)$)");
    static const std::regex task(
        R"(^task on ([A-Za-z0-9][A-Za-z0-9._-]*) step ([0-9]{1,12}\.[0-9]{1,12})$)");
    static const std::regex listening(R"(^listening on port ([0-9]{1,5})$)");
    static const std::regex ended(
        R"(^srun: error: ([A-Za-z0-9][A-Za-z0-9._-]*): tasks? ([0-9]+)(?:[-,][0-9,-]*)?: (.+)$)");
    const auto known = [&nodes](const std::string& node) {
        return std::find(nodes.begin(), nodes.end(), node) != nodes.end();
    };
    Line result;
    std::smatch match;
    if (std::regex_match(line, match, labelled)) {
        int rank = 0;
        if (!readRank(match[1].str(), tasks, rank)) {
            return result;
        }
        const std::string text = match[2].str();
        std::smatch inner;
        if (std::regex_match(text, inner, task) && known(inner[1].str())) {
            result.kind = Line::Kind::task;
            result.node = inner[1].str();
            result.step = inner[2].str();
        } else if (std::regex_match(text, inner, listening)) {
            const int port = std::stoi(inner[1].str());
            if (port < 1 || port > 65535) {
                return result;
            }
            result.kind = Line::Kind::listening;
            result.port = port;
        } else {
            return result;
        }
        result.rank = rank;
    } else if (std::regex_match(line, match, ended) && known(match[1].str()) &&
               readRank(match[2].str(), tasks, result.rank)) {
        result.kind = Line::Kind::ended;
        result.node = match[1].str();
        result.text = escaped(match[3].str());
    } else {
        result.rank = -1;
    }
    return result;
}

void klSlurmOutput::add(const std::string& line) {
    const Line parsed = parse(line, int(m_tasks.size()), m_nodes);
    switch (parsed.kind) {
        case Line::Kind::other:
            if (!line.empty()) {
                m_lastOther = escaped(line);
            }
            break;
        case Line::Kind::task: {
            Task& task = m_tasks[std::size_t(parsed.rank)];
            if (!task.node.empty() && task.node != parsed.node) {
                contradiction("task " + std::to_string(parsed.rank) + " said it runs on " +
                              task.node + " and on " + parsed.node);
            }
            for (std::size_t rank = 0; rank < m_tasks.size(); ++rank) {
                if (int(rank) != parsed.rank && m_tasks[rank].node == parsed.node) {
                    contradiction("tasks " + std::to_string(rank) + " and " +
                                  std::to_string(parsed.rank) + " both run on " + parsed.node);
                }
            }
            if (!m_step.empty() && m_step != parsed.step) {
                contradiction("the tasks name two steps, " + m_step + " and " + parsed.step);
            }
            task.node = parsed.node;
            m_step = parsed.step;
            break;
        }
        case Line::Kind::listening: {
            Task& task = m_tasks[std::size_t(parsed.rank)];
            if (task.port != 0 && task.port != parsed.port) {
                contradiction("task " + std::to_string(parsed.rank) + " said two ports, " +
                              std::to_string(task.port) + " and " + std::to_string(parsed.port));
            }
            task.port = parsed.port;
            break;
        }
        case Line::Kind::ended:
            if (!m_ended) {
                m_ended = Ended{parsed.rank, parsed.node, parsed.text};
            }
            break;
    }
}

bool klSlurmOutput::ready() const {
    return m_problem.empty() && std::all_of(m_tasks.begin(), m_tasks.end(), [](const Task& task) {
               return !task.node.empty() && task.port != 0;
           });
}

std::string klSlurmOutput::missing() const {
    std::string all;
    for (std::size_t rank = 0; rank < m_tasks.size(); ++rank) {
        const Task& task = m_tasks[rank];
        if (task.node.empty() || task.port == 0) {
            all += (all.empty() ? "" : ", ") +
                   (task.node.empty() ? "task " + std::to_string(rank) : task.node);
        }
    }
    return all;
}

void klSlurmOutput::contradiction(const std::string& text) {
    if (m_problem.empty()) {
        m_problem = text;
    }
}
