#include "core/serial_queue.h"

#include <utility>

namespace vn {

// One pending task: made by addOperation for each post, or once by a
// wake-up and linked again at each of its posts.
struct SerialQueue::Entry {
  Task task;
  std::shared_ptr<Operation> operation;  // null for a wake-up
  bool repeating = false;                // a wake-up's: the task is kept after it ran
  // Guarded by the queue's lock.
  std::shared_ptr<Entry> next;  // the entry queued after this one
  bool queued = false;          // linked into the pending list
};

struct SerialQueue::State {
  std::mutex lock;
  std::condition_variable wake;
  // Guarded by lock: the pending entries, oldest first, linked through
  // their next.
  std::shared_ptr<Entry> head;
  Entry* tail = nullptr;
  bool stopping = false;

  ~State() {
    // Unlinked one by one: a long list must not unwind recursively.
    while (head)
      head = std::move(head->next);
  }

  // Under lock.
  void pushLocked(std::shared_ptr<Entry> entry) {
    entry->queued = true;
    Entry* raw = entry.get();
    if (tail)
      tail->next = std::move(entry);
    else
      head = std::move(entry);
    tail = raw;
  }
  std::shared_ptr<Entry> popLocked() {
    std::shared_ptr<Entry> entry = std::move(head);
    head = std::move(entry->next);
    if (!head)
      tail = nullptr;
    entry->queued = false;
    return entry;
  }
};

void SerialQueue::Operation::wait() {
  std::unique_lock<std::mutex> guard(lock_);
  done_.wait(guard, [this] { return finished_; });
}

bool SerialQueue::Operation::isFinished() {
  std::lock_guard<std::mutex> guard(lock_);
  return finished_;
}

void SerialQueue::Operation::finish() {
  std::lock_guard<std::mutex> guard(lock_);
  finished_ = true;
  done_.notify_all();
}

SerialQueue::Wakeup::Wakeup(SerialQueue& queue, Task task)
    : queue_(queue.state_), entry_(std::make_shared<Entry>()) {
  entry_->task = std::move(task);
  entry_->repeating = true;
}

SerialQueue::Wakeup::~Wakeup() = default;

bool SerialQueue::Wakeup::post() {
  const std::shared_ptr<State> state = queue_.lock();
  if (!state)
    return false;
  {
    std::lock_guard<std::mutex> guard(state->lock);
    if (entry_->queued || state->stopping)
      return false;
    // Copying the pointer into the list only counts a reference.
    state->pushLocked(entry_);
  }
  state->wake.notify_one();
  return true;
}

SerialQueue::SerialQueue(std::string name)
    : name_(std::move(name)), state_(std::make_shared<State>()) {
  std::thread worker([state = state_] {
    for (;;) {
      std::shared_ptr<Entry> entry;
      {
        std::unique_lock<std::mutex> guard(state->lock);
        state->wake.wait(guard, [&] { return state->stopping || state->head; });
        if (!state->head)
          return;  // stopping and drained
        entry = state->popLocked();
      }
      entry->task();
      // Drop what a one-off task captured before announcing it finished, so
      // a waiter sees its references released.
      if (!entry->repeating)
        entry->task = nullptr;
      if (entry->operation)
        entry->operation->finish();
    }
  });
  workerId_ = worker.get_id();
  worker.detach();
}

SerialQueue::~SerialQueue() {
  std::shared_ptr<Operation> last;
  if (!isCurrent()) {
    // Let pending work run, then end.
    last = addOperation([] {});
  }
  {
    std::lock_guard<std::mutex> guard(state_->lock);
    state_->stopping = true;
  }
  state_->wake.notify_all();
  if (last)
    last->wait();
}

std::shared_ptr<SerialQueue::Operation> SerialQueue::addOperation(Task task) {
  auto entry = std::make_shared<Entry>();
  entry->task = std::move(task);
  entry->operation = std::make_shared<Operation>();
  std::shared_ptr<Operation> operation = entry->operation;
  // The task may destroy this queue as soon as it is queued: hold the state
  // for the wake-up.
  const std::shared_ptr<State> state = state_;
  {
    std::lock_guard<std::mutex> guard(state->lock);
    state->pushLocked(std::move(entry));
  }
  state->wake.notify_one();
  return operation;
}

void SerialQueue::waitUntilAllOperationsAreFinished() {
  if (isCurrent())
    return;
  addOperation([] {})->wait();
}

bool SerialQueue::isCurrent() const {
  return std::this_thread::get_id() == workerId_;
}

}  // namespace vn
