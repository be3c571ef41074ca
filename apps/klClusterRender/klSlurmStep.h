// klSlurmStep: one Slurm job step of the render job, one task on every node of the allocation,
// owned by this object from start to end.
//
// The step is one "srun --label --input=all --kill-on-bad-exit=1" process. Each task first says
// where it runs ("task on NODE step JOB.STEP", written by a small shell wrapper from
// SLURMD_NODENAME, SLURM_JOB_ID and SLURM_STEP_ID) and then runs the program given, which is
// expected to say "listening on port N" once it listens. srun's standard output and standard
// error come back through one pipe that a reader thread reads into a klSlurmOutput.
//
// srun's standard input is a pipe of this object's: the bytes given to the constructor are
// written into it (srun hands them to every task) and the write end stays open for the step's
// life, so that a task sees its input close only when the step is to end. Nothing of those bytes
// is kept here.
//
// Ending: end() and the destructor close srun's standard input, give the step time to end by
// itself, then send srun SIGTERM (which srun passes to every task), then cancel the step with
// scancel and kill srun. If this process dies without ending the step (kill -9), srun gets
// SIGTERM from the kernel (a parent-death signal) and sees its input close. srun runs in a process
// group of its own, so a Ctrl-C at the terminal reaches this process alone.
//
// The parent-death signal is tied to the thread that starts srun: construct the step on a thread
// that outlives it (the main thread).
//
// Thread safety: waitForTasks(), failure(), step() and ended() from any thread; end() and the
// destructor from the owning thread.
#pragma once

#include "klSlurmOutput.h"

#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

class klSlurmStep {
public:
    // How the step, or one of its tasks, ended before it was asked to.
    struct Failure {
        // The node of the task that ended, or empty when srun said no more than that it ended.
        std::string node;
        // "its task ended: Killed", "srun exited with status 1: <its last words>".
        std::string text;
    };

    // Starts srun with srunOptions (further srun options) and then the command (program and
    // arguments) as a step of one task on each of the nodes; writes input to its standard input.
    // Throws std::runtime_error when srun cannot be started.
    klSlurmStep(const std::vector<std::string>& nodes, const std::vector<std::string>& srunOptions,
                const std::vector<std::string>& command, const std::uint8_t* input,
                std::size_t size);
    ~klSlurmStep();

    klSlurmStep(const klSlurmStep&) = delete;
    klSlurmStep& operator=(const klSlurmStep&) = delete;

    // Waits until every task has said where it runs and its port, and returns them by rank;
    // throws std::runtime_error when the step ends first, contradicts itself or seconds pass.
    std::vector<klSlurmOutput::Task> waitForTasks(double seconds);
    // Once srun has reported a task's end or has ended: which task and why; waits up to seconds
    // for it (0: does not wait).
    std::optional<Failure> failure(double seconds = 0.0);
    // "JOB.STEP" once a task has said it, else empty.
    std::string step();

    // Ends the step (see above); true when it ended by itself within graceSeconds of its input's
    // close. Later calls do nothing and return the first answer.
    bool end(double graceSeconds);

private:
    // Reads srun's output until it closes, then waits for srun to end (without reaping it).
    void read();
    // Waits up to seconds for srun to have ended; reaps it then.
    bool waitForExit(double seconds);
    // Sends a signal to srun unless it has been reaped.
    void signal(int number);
    // The step's failure under m_mutex.
    std::optional<Failure> failureLocked() const;

    // Constant after construction.
    pid_t m_pid = -1;
    int m_input = -1;
    int m_output = -1;
    std::thread m_reader;

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    // Guarded by m_mutex.
    klSlurmOutput m_lines;
    bool m_outputClosed = false;
    bool m_exited = false;  // srun has ended (it may not be reaped yet)
    bool m_reaped = false;
    int m_status = 0;
    std::string m_exit;     // how srun ended, once m_exited
    bool m_ending = false;  // end() has begun: what srun says from now on is no failure

    // Touched only by the owning thread.
    std::optional<bool> m_endedByItself;
};
