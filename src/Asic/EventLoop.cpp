#include "Asic/EventLoop.h"

namespace Asic {

std::size_t EventLoop::runOnce() {
   std::size_t n = tasks_.size();
   ++turns_;
   for (std::size_t i = 0; i < n; ++i) {
      Task task = std::move(tasks_.front());
      tasks_.pop_front();
      task();
   }
   return n;
}

std::size_t EventLoop::runUntilIdle() {
   std::size_t total = 0;
   while (!tasks_.empty()) total += runOnce();
   return total;
}

}  // namespace Asic
