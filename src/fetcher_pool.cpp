#include <sorvexa/fetcher_pool.h>

void fetcher_pool::with(const std::function<void(read_fetcher&)>& f) {
    std::unique_ptr<read_fetcher> mine;
    {
        std::lock_guard lock(mutex_);
        if (!idle_.empty()) {
            mine = std::move(idle_.back());
            idle_.pop_back();
        }
    }
    if (!mine) {
        mine = std::make_unique<read_fetcher>(lookup_);
        mine->check_stamps = check_stamps_;
    }
    // Given back even when f throws: its readers are still sound.
    struct give_back {
        fetcher_pool& pool;
        std::unique_ptr<read_fetcher>& fetcher;
        ~give_back() {
            // An idle fetcher holds open files, not the buffers of its last long read.
            fetcher->release();
            std::lock_guard lock(pool.mutex_);
            pool.idle_.push_back(std::move(fetcher));
        }
    } back{*this, mine};
    f(*mine);
}
