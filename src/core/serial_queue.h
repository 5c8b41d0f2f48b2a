// vn::SerialQueue: one worker thread running posted tasks one at a time, in
// the order they were added (a strictly serial operation queue).
//
//   addOperation ──► [pending FIFO] ──► worker thread runs it ──► finished
//
// Tasks hold owning references to what they use. A task may destroy the
// queue's owner (it held the last reference); the queue then lets its worker
// finish on its own instead of joining itself.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace vn {

class SerialQueue {
 public:
  using Task = std::function<void()>;

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
  struct State;

  std::string name_;
  std::shared_ptr<State> state_;
  std::thread::id workerId_;
};

}  // namespace vn
