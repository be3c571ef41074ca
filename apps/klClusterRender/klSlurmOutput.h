// klSlurmOutput: what the render job's Slurm step says on its output, line by line.
//
// The step runs one cluster service per node under "srun --label", so every line a task writes
// comes prefixed with the task's rank ("2: ", padded with blanks to the width of the highest
// rank), and srun adds lines of its own. The lines that count:
//
//   R: task on NODE step JOB.STEP     the task's first line (its wrapper says where it runs)
//   R: listening on port N            the service of task R listens on port N of its node
//   srun: error: NODE: task R: TEXT   task R ended badly ("Killed", "Exited with exit code 1")
//   srun: error: NODE: tasks R-S: TEXT    the same for several tasks at once
//
// Anything else (the services' warnings, srun's other words) is kept as the last line seen, for
// messages. The output is not trusted further than it must be: a rank outside the step, a node
// that is not one of the allocation's, a port outside 1 to 65535 or a malformed number makes the
// line count as an unknown one; a task that names a second node or a second port, or two tasks
// on one node, is a contradiction that problem() reports.
//
// Thread safety: none; the step's reader feeds it under the step's lock.
#pragma once

#include <optional>
#include <string>
#include <vector>

class klSlurmOutput {
public:
    // One line, as parse() understands it.
    struct Line {
        enum class Kind { other, task, listening, ended };
        Kind kind = Kind::other;
        int rank = -1;
        // task and ended: the node; task: the step's id "JOB.STEP".
        std::string node;
        std::string step;
        int port = 0;
        // ended: srun's words on how the task ended.
        std::string text;
    };

    // Where a task runs and where its service listens (0 until it has said).
    struct Task {
        std::string node;
        int port = 0;
    };

    // The first task whose end srun reported.
    struct Ended {
        int rank = -1;
        std::string node;
        std::string text;
    };

    // tasks: the step's task count; nodes: the allocation's node names, the only ones accepted.
    klSlurmOutput(int tasks, std::vector<std::string> nodes);

    // Reads one line without its line break; a line that is not understood, or that names a rank,
    // node or port that cannot be, is Kind::other.
    static Line parse(const std::string& line, int tasks, const std::vector<std::string>& nodes);

    // Takes one line of the step's output.
    void add(const std::string& line);

    // Every task has said where it runs and on which port its service listens.
    bool ready() const;
    const std::vector<Task>& tasks() const { return m_tasks; }
    // The step's id once a task has told it ("JOB.STEP"), else empty.
    const std::string& step() const { return m_step; }
    const std::optional<Ended>& ended() const { return m_ended; }
    // Empty unless the output contradicts itself; then what, from the first contradiction on.
    const std::string& problem() const { return m_problem; }
    // The last line not understood, escaped for a message; empty when none.
    const std::string& lastOther() const { return m_lastOther; }
    // The nodes (or ranks, while their node is unknown) yet to report a port, for messages.
    std::string missing() const;

private:
    void contradiction(const std::string& text);

    std::vector<std::string> m_nodes;
    std::vector<Task> m_tasks;
    std::string m_step;
    std::optional<Ended> m_ended;
    std::string m_problem;
    std::string m_lastOther;
};
