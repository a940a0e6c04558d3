// Fetchers for one read_lookup shared by threads: each call runs with a fetcher no other
// thread uses meanwhile, and fetchers are kept, with their open readers, for later calls.
#pragma once

#include <sorvexa/read_lookup.h>

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

class fetcher_pool {
  public:
    // With `check_stamps`, no fetcher reads a file changed since it was indexed.
    explicit fetcher_pool(const read_lookup& lookup, bool check_stamps = true)
        : lookup_(lookup), check_stamps_(check_stamps) {}
    void with(const std::function<void(read_fetcher&)>& f);

  private:
    const read_lookup& lookup_;
    bool check_stamps_;
    std::mutex mutex_;
    std::vector<std::unique_ptr<read_fetcher>> idle_;
};
