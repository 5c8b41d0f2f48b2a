#include "core/serial_queue.h"

#include <deque>
#include <utility>

namespace vn {

struct SerialQueue::State {
  std::mutex lock;
  std::condition_variable wake;
  // Guarded by lock.
  std::deque<std::pair<Task, std::shared_ptr<Operation>>> pending;
  bool stopping = false;
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

SerialQueue::SerialQueue(std::string name)
    : name_(std::move(name)), state_(std::make_shared<State>()) {
  std::thread worker([state = state_] {
    for (;;) {
      std::pair<Task, std::shared_ptr<Operation>> item;
      {
        std::unique_lock<std::mutex> guard(state->lock);
        state->wake.wait(guard, [&] { return state->stopping || !state->pending.empty(); });
        if (state->pending.empty())
          return;  // stopping and drained
        item = std::move(state->pending.front());
        state->pending.pop_front();
      }
      item.first();
      // Drop what the task captured before announcing it finished, so a
      // waiter sees its references released.
      item.first = nullptr;
      item.second->finish();
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
  auto operation = std::make_shared<Operation>();
  // The task may destroy this queue as soon as it is queued: hold the state
  // for the wake-up.
  const std::shared_ptr<State> state = state_;
  {
    std::lock_guard<std::mutex> guard(state->lock);
    state->pending.emplace_back(std::move(task), operation);
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
