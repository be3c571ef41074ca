// klSlurmJob: the Slurm allocation this program runs in (under salloc or in an sbatch script):
// its id and its nodes, each with the address to connect to.
//
// The nodes are those of SLURM_JOB_NODELIST, expanded by "scontrol show hostnames" in Slurm's
// order; a node's address is its NodeAddr as "scontrol show node" gives it (the node's name need
// not resolve: several Slurm nodes may share one machine and one address).
//
// Thread safety: a found job is read-only.
#pragma once

#include <string>
#include <vector>

class klSlurmJob {
public:
    struct Node {
        std::string name;
        std::string address;
    };

    // True when the environment is that of a Slurm allocation (SLURM_JOB_ID is set).
    static bool inAllocation();
    // The job of the allocation; throws std::runtime_error when scontrol fails or answers
    // something that is not a node list.
    static klSlurmJob current();

    const std::string& id() const { return m_id; }
    const std::vector<Node>& nodes() const { return m_nodes; }
    std::vector<std::string> names() const;

private:
    std::string m_id;
    std::vector<Node> m_nodes;
};
