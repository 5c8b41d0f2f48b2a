#include "core/serial_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <numeric>
#include <thread>
#include <vector>

TEST(SerialQueueTest, RunsTasksOneAtATimeInOrder) {
  vn::SerialQueue queue("test");
  std::vector<int> order;  // touched only by the worker
  std::atomic<int> running{0};
  std::atomic<int> overlaps{0};
  // A slow first task: a flush that did not wait would see nothing run.
  queue.addOperation([] { std::this_thread::sleep_for(std::chrono::milliseconds(20)); });
  for (int i = 0; i < 200; ++i) {
    queue.addOperation([&, i] {
      if (running.fetch_add(1) != 0)
        ++overlaps;
      EXPECT_TRUE(queue.isCurrent());
      order.push_back(i);
      running.fetch_sub(1);
    });
  }
  int value = 0;
  auto op = queue.addOperation([&] { value = 42; });
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(op->isFinished() && value == 42 && !queue.isCurrent() && overlaps.load() == 0);
  std::vector<int> expected(200);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(order, expected);
  // Waiting on one operation holds the caller until that one has run.
  queue.addOperation([] { std::this_thread::sleep_for(std::chrono::milliseconds(20)); });
  auto last = queue.addOperation([&] { value = 7; });
  last->wait();
  EXPECT_EQ(value, 7);
}

// A task dropping the queue's owner must not make the queue join its own thread.
TEST(SerialQueueTest, OwnerDestroyedFromItsOwnTask) {
  struct Owner {
    vn::SerialQueue queue{"owner"};
  };
  auto owner = std::make_shared<Owner>();
  std::atomic<bool> destroyed{false};
  std::shared_ptr<vn::SerialQueue::Operation> op;
  {
    auto* raw = owner.get();
    op = raw->queue.addOperation([owner = std::move(owner), &destroyed]() mutable {
      owner.reset();  // destroys the queue from its own worker
      destroyed = true;
    });
  }
  op->wait();
  EXPECT_TRUE(destroyed.load());
}

TEST(SerialQueueTest, DestructionRunsPendingWork) {
  std::atomic<int> ran{0};
  {
    vn::SerialQueue queue("test");
    for (int i = 0; i < 10; ++i)
      queue.addOperation([&] { ++ran; });
  }
  EXPECT_EQ(ran.load(), 10);
}

// What a one-off task captured is released before the task counts as finished.
TEST(SerialQueueTest, ATaskReleasesItsCaptureBeforeItFinishes) {
  using Slot = std::shared_ptr<std::shared_ptr<vn::SerialQueue::Operation>>;
  struct Probe {  // records, when the last copy goes, whether its operation had finished
    Slot slot;
    std::atomic<int>* seen;
    ~Probe() {
      if (slot && *slot)
        *seen = (*slot)->isFinished() ? 2 : 1;
    }
  };
  vn::SerialQueue queue("capture");
  std::promise<void> gate;
  queue.addOperation([opened = gate.get_future().share()] { opened.wait(); });
  const Slot slot = std::make_shared<Slot::element_type>();
  std::atomic<int> seen{0};
  *slot = queue.addOperation([probe = Probe{slot, &seen}] {});
  gate.set_value();
  queue.waitUntilAllOperationsAreFinished();
  for (int i = 0; i < 200 && seen == 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_EQ(seen.load(), 1);
}
