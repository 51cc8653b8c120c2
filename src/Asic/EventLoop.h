#pragma once
// The agent's single event-loop thread, reduced to what the library needs: the hardware
// layer posts completed writes here, and the agent or a test runs the loop until idle.
// Nothing blocks and nothing starts a thread.

#include <cstddef>
#include <deque>
#include <functional>

namespace Asic {

class EventLoop {
 public:
   using Task = std::function<void()>;

   void post(Task task) { tasks_.push_back(std::move(task)); }

   // One turn: runs the tasks that were queued when the turn began. Returns how many ran.
   std::size_t runOnce();
   // Turns until no task is left. Returns how many tasks ran.
   std::size_t runUntilIdle();

   std::size_t pending() const noexcept { return tasks_.size(); }
   std::size_t turns() const noexcept { return turns_; }

 private:
   std::deque<Task> tasks_;
   std::size_t turns_ = 0;
};

}  // namespace Asic
