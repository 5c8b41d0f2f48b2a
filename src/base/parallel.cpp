#include "base/parallel.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace vn {
namespace {

struct Job {
  const std::function<void(int)>* fn;
  int count;
  int helpers;  // how many pool workers may join, at most
  std::atomic<int> next{0};
  int joined = 0;    // guarded by the pool's lock
  int finished = 0;  // guarded by doneLock
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
      wake_.notify_all();
    }
    job->addFinished(job->runItems());
    if (job->helpers > 0) {
      std::lock_guard<std::mutex> lock(lock_);
      jobs_.erase(std::remove(jobs_.begin(), jobs_.end(), job), jobs_.end());
    }
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
