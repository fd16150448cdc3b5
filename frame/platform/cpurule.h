// CPU-affinity library (libcpurule.so).
#pragma once

#include <sched.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct CpuAffinityRequest {
    const char* process;  // in: process name
    cpu_set_t cpus;       // out: the CPUs it may run on
    uint8_t reserved[136];
};

// Fills cpus for request->process. 0: there is a rule; otherwise none applies.
// Threads: any.
int get_cores_affinity(struct CpuAffinityRequest* request);

#ifdef __cplusplus
}

static_assert(sizeof(CpuAffinityRequest) == 272 && offsetof(CpuAffinityRequest, cpus) == 8);
#endif
