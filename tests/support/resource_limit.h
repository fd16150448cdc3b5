// Another limit of the process (RLIMIT_) for as long as this lives.
#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

template <auto Resource>
class ResourceLimit {
  public:
    explicit ResourceLimit(rlim_t limit) {
        EXPECT_EQ(getrlimit(Resource, &old_), 0);
        const rlimit now{limit, old_.rlim_max};
        EXPECT_EQ(setrlimit(Resource, &now), 0);
    }
    ~ResourceLimit() { (void)setrlimit(Resource, &old_); }

  private:
    rlimit old_{};
};
