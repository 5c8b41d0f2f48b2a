#include "base/parallel.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace vn {
namespace {

// A thread about to sleep waiting for the other side first watches for it
// this long: the jobs of a picture come one right after another, and a
// thread woken from sleep starts tens of microseconds later, which the
// short jobs of a picture's filters would otherwise pay at each step.
constexpr auto kWatchBeforeSleep = std::chrono::microseconds(50);

// Watches until done() holds or kWatchBeforeSleep has passed, yielding
// between looks: on cores busy with other work (an encoder's threads) the
// watch gives way to it.
template <typename Done>
void watchBriefly(const Done& done) {
  const auto until = std::chrono::steady_clock::now() + kWatchBeforeSleep;
  while (!done() && std::chrono::steady_clock::now() < until)
    std::this_thread::yield();
}

struct Job {
  const std::function<void(int)>* fn;
  int count;
  int helpers;  // how many pool workers may join, at most
  std::atomic<int> next{0};
  int joined = 0;                    // guarded by the pool's lock
  int finished = 0;                  // guarded by doneLock
  std::atomic<int> finishedSeen{0};  // finished, to be watched without the lock
  std::mutex doneLock;
  std::condition_variable doneChanged;

  // Runs items until none is left; returns how many this thread ran.
  int runItems() {
    int ran = 0;
    for (int i = next.fetch_add(1); i < count; i = next.fetch_add(1)) {
      (*fn)(i);
      ++ran;
    }
    return ran;
  }
  void addFinished(int n) {
    if (n == 0)
      return;
    std::lock_guard<std::mutex> lock(doneLock);
    finished += n;
    finishedSeen.fetch_add(n, std::memory_order_release);
    if (finished == count)
      doneChanged.notify_all();
  }
};

// Workers live for the whole process; they sleep while no job is queued.
class Pool {
 public:
  static Pool& shared() {
    // Never destroyed: workers may still sleep on it at exit.
    static Pool* pool = new Pool(std::max(hardwareThreads() - 1, 0));
    return *pool;
  }

  void run(int count, int threads, const std::function<void(int)>& fn) {
    auto job = std::make_shared<Job>();
    job->fn = &fn;
    job->count = count;
    job->helpers = std::min({threads - 1, count - 1, static_cast<int>(workers_.size())});
    if (job->helpers > 0) {
      std::lock_guard<std::mutex> lock(lock_);
      jobs_.push_back(job);
      queued_.fetch_add(1, std::memory_order_release);
      wake_.notify_all();
    }
    job->addFinished(job->runItems());
    if (job->helpers > 0) {
      std::lock_guard<std::mutex> lock(lock_);
      jobs_.erase(std::remove(jobs_.begin(), jobs_.end(), job), jobs_.end());
    }
    watchBriefly([&] { return job->finishedSeen.load(std::memory_order_acquire) == job->count; });
    std::unique_lock<std::mutex> lock(job->doneLock);
    job->doneChanged.wait(lock, [&] { return job->finished == job->count; });
  }

 private:
  explicit Pool(int workers) {
    for (int i = 0; i < workers; ++i)
      workers_.emplace_back([this] { work(); });
    for (auto& t : workers_)
      t.detach();
  }

  void work() {
    std::unique_lock<std::mutex> lock(lock_);
    for (;;) {
      if (jobs_.empty()) {
        const int seen = queued_.load(std::memory_order_acquire);
        lock.unlock();
        watchBriefly([&] { return queued_.load(std::memory_order_acquire) != seen; });
        lock.lock();
      }
      wake_.wait(lock, [this] { return !jobs_.empty(); });
      std::shared_ptr<Job> job = jobs_.front();
      if (++job->joined >= job->helpers)
        jobs_.pop_front();
      lock.unlock();
      job->addFinished(job->runItems());
      job.reset();
      lock.lock();
    }
  }

  std::mutex lock_;
  std::condition_variable wake_;
  std::deque<std::shared_ptr<Job>> jobs_;  // guarded by lock_
  std::atomic<int> queued_{0};             // jobs ever queued, to be watched without the lock
  std::vector<std::thread> workers_;
};

}  // namespace

int hardwareThreads() {
  static const int n = std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
  return n;
}

void parallelFor(int count, int threads, const std::function<void(int)>& fn) {
  if (count <= 0)
    return;
  if (threads <= 0)
    threads = hardwareThreads();
  if (threads == 1 || count == 1) {
    for (int i = 0; i < count; ++i)
      fn(i);
    return;
  }
  Pool::shared().run(count, threads, fn);
}

}  // namespace vn
