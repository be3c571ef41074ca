// The render job's Slurm step output: which labelled lines give a task's node and port, which
// srun lines name a task that ended, and which lines are refused however close they come.
#include "klSlurmOutput.h"

#include <gtest/gtest.h>

namespace {

using Kind = klSlurmOutput::Line::Kind;

const std::vector<std::string> kNodes{"n1", "n2", "n3"};

struct LineCase {
    std::string line;
    Kind kind;
    int rank;
    std::string node;
    int port;
};

// The line itself names the case.
void PrintTo(const LineCase& value, std::ostream* out) {
    *out << '"' << value.line << '"';
}

class klSlurmOutputLineTest : public testing::TestWithParam<LineCase> {};

TEST_P(klSlurmOutputLineTest, ReadsOnlyWhatATaskOrSrunCanSay) {
    const LineCase& expected = GetParam();
    const klSlurmOutput::Line line = klSlurmOutput::parse(expected.line, 3, kNodes);
    EXPECT_EQ(line.kind, expected.kind) << expected.line;
    if (expected.kind != Kind::other) {
        EXPECT_EQ(line.rank, expected.rank) << expected.line;
        EXPECT_EQ(line.node, expected.node) << expected.line;
        EXPECT_EQ(line.port, expected.port) << expected.line;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Lines, klSlurmOutputLineTest,
    testing::Values(
        LineCase{"0: task on n1 step 12.0", Kind::task, 0, "n1", 0},
        LineCase{"2: listening on port 41234", Kind::listening, 2, "", 41234},
        // srun pads the label to the width of the highest rank.
        LineCase{" 1: listening on port 65535", Kind::listening, 1, "", 65535},
        LineCase{"srun: error: n2: task 1: Killed", Kind::ended, 1, "n2", 0},
        LineCase{"srun: error: n3: tasks 0-2: Exited with exit code 1", Kind::ended, 0, "n3", 0},
        // A rank outside the step, a port that cannot be, a node not in the allocation.
        LineCase{"3: listening on port 41234", Kind::other, 0, "", 0},
        LineCase{"99999999999999999999: listening on port 1", Kind::other, 0, "", 0},
        LineCase{"0: listening on port 0", Kind::other, 0, "", 0},
        LineCase{"0: listening on port 65536", Kind::other, 0, "", 0},
        LineCase{"0: listening on port 123456", Kind::other, 0, "", 0},
        LineCase{"0: task on n9 step 12.0", Kind::other, 0, "", 0},
        LineCase{"0: task on ../n1 step 12.0", Kind::other, 0, "", 0},
        LineCase{"srun: error: n9: task 1: Killed", Kind::other, 0, "", 0},
        LineCase{"srun: error: n2: task 3: Killed", Kind::other, 0, "", 0},
        // Near misses: unlabelled, extra text, a label without its blank, a negative rank.
        LineCase{"listening on port 41234", Kind::other, 0, "", 0},
        LineCase{"0: listening on port 41234 or 1", Kind::other, 0, "", 0},
        LineCase{"0:listening on port 41234", Kind::other, 0, "", 0},
        LineCase{"-1: listening on port 41234", Kind::other, 0, "", 0},
        LineCase{"0: task on n1 step 12", Kind::other, 0, "", 0},
        LineCase{"0: srun: error: n2: task 1: Killed", Kind::other, 0, "", 0}));

TEST(klSlurmOutputTest, MapsEveryRankToItsNodeAndPortAndRefusesContradictions) {
    klSlurmOutput output(3, kNodes);
    for (const char* line : {"1: task on n3 step 7.1", "0: task on n1 step 7.1",
                             "0: listening on port 40001", "4: listening on port 1",
                             "1: 2026-11-25 WARNING \x1b[2J something", "2: task on n2 step 7.1"}) {
        output.add(line);
    }
    EXPECT_FALSE(output.ready());
    EXPECT_EQ(output.missing(), "n3, n2");
    EXPECT_EQ(output.lastOther(), "1: 2026-11-25 WARNING \\x1b[2J something");
    output.add("1: listening on port 40003");
    output.add("2: listening on port 40002");
    ASSERT_TRUE(output.ready());
    EXPECT_EQ(output.step(), "7.1");
    ASSERT_EQ(output.tasks().size(), 3u);
    EXPECT_EQ(output.tasks()[1].node, "n3");
    EXPECT_EQ(output.tasks()[1].port, 40003);
    EXPECT_FALSE(output.ended());

    output.add("srun: error: n3: task 1: Killed");
    output.add("srun: error: n1: task 0: Killed");
    ASSERT_TRUE(output.ended());
    EXPECT_EQ(output.ended()->node, "n3");
    EXPECT_EQ(output.ended()->text, "Killed");

    // Each a contradiction of the lines above: the step is not to be trusted with any of them.
    for (const char* line : {"1: listening on port 40004", "1: task on n2 step 7.1",
                             "2: task on n1 step 7.1", "0: task on n1 step 7.2"}) {
        klSlurmOutput again(3, kNodes);
        for (const char* earlier :
             {"0: task on n1 step 7.1", "1: task on n3 step 7.1", "1: listening on port 40003"}) {
            again.add(earlier);
        }
        EXPECT_TRUE(again.problem().empty());
        again.add(line);
        EXPECT_FALSE(again.problem().empty()) << line;
        again.add("2: task on n2 step 7.1");
        again.add("0: listening on port 1");
        again.add("2: listening on port 2");
        EXPECT_FALSE(again.ready()) << line;
    }
}

}  // namespace
