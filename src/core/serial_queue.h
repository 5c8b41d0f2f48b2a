// vn::SerialQueue: one worker thread running posted tasks one at a time, in
// the order they were added (a strictly serial operation queue).
//
//   addOperation ──► [pending FIFO] ──► worker thread runs it ──► finished
//   Wakeup::post ──┘  (a task made once, queued again and again)
//
// Tasks hold owning references to what they use. A task may destroy the
// queue's owner (it held the last reference); the queue then lets its worker
// finish on its own instead of joining itself.
//
// Threads: addOperation, Wakeup::post, waitUntilAllOperationsAreFinished and
// isCurrent from any thread; see src/THREADS.md.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace vn {

class SerialQueue {
  struct State;

 public:
  using Task = std::function<void()>;
  struct Entry;

  // A posted task; wait() holds the caller until it has run.
  class Operation {
   public:
    void wait();
    bool isFinished();

   private:
    friend class SerialQueue;
    void finish();

    std::mutex lock_;
    std::condition_variable done_;
    bool finished_ = false;  // Guarded by lock_.
  };

  // A task made once and queued any number of times without allocating:
  // for a caller that must not allocate (the audio device thread). post()
  // takes only the queue's lock, for a few instructions, and wakes the
  // worker. The task is queued at most once at a time: a post while it
  // waits in the queue does nothing; once the worker has taken it, the next
  // post queues it again. Allocation-free by construction: the queue links
  // the wake-up's own entry, made with it, into its list of pending entries
  // (a test counts the allocations of the device thread's path to be sure).
  class Wakeup {
   public:
    // May outlive the queue; a post after the queue is gone does nothing.
    Wakeup(SerialQueue& queue, Task task);
    Wakeup(const Wakeup&) = delete;
    Wakeup& operator=(const Wakeup&) = delete;
    // A task still queued runs all the same (it holds what it needs).
    ~Wakeup();

    // Queues the task unless it is queued already; true when this call
    // queued it. Any thread.
    bool post();

   private:
    std::weak_ptr<State> queue_;    // the queue's state
    std::shared_ptr<Entry> entry_;  // linked into the queue while queued
  };

  explicit SerialQueue(std::string name);
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;
  // Runs what is still pending, then ends the worker. Does not block when
  // called from the worker itself.
  ~SerialQueue();

  // Posts a task; any thread. The handle may be ignored.
  std::shared_ptr<Operation> addOperation(Task task);

  // Holds the caller until every task added before this call has run. Must
  // not be called from the worker (it would wait for itself); there it
  // returns at once.
  void waitUntilAllOperationsAreFinished();

  // True on the queue's worker thread.
  bool isCurrent() const;

  const std::string& name() const { return name_; }

 private:
  std::string name_;
  std::shared_ptr<State> state_;
  std::thread::id workerId_;
};

}  // namespace vn
