// Serial task queues multiplexed on a small shared pool of worker threads.
//
// A queue is a list of tasks and a flag saying whether it is scheduled, that is, waiting in the
// scheduler's ready list or running on a worker. A queue is scheduled at most once, so at most one
// worker runs its tasks, one at a time, in posting order. A worker takes the queue at the front of
// the ready list, runs one task and puts the queue back at the end if it has more, so that busy
// queues take turns on the workers.
//
// Posting to a queue that is already scheduled touches only that queue's lock. Posting to an
// unscheduled one puts it in the ready list and wakes one idle worker. Creating a queue starts no
// thread.
//
// A program that drives time itself (a simulator in virtual time) holds the queues and runs chosen
// tasks on its own thread (`runHeldTask`); it may also have a caller that waits for a task run that
// task itself first (`setWaitRunsHeldTasks`), so that one thread can drive every queue.
//
// Tasks may block: on another queue's barrier, on a client, on a test that parks them. A monitor
// thread watches for runnable queues that no worker comes back for while every worker is busy, and
// starts another worker; surplus workers end after idling for a while. Nothing is bounded, so a
// blocked task never keeps another queue from running.
//
// Lock order: the scheduler's mutex, then a queue's mutex.

#include <android/log.h>
#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <list>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "HostPlatform.h"
#include "camsys/TaskMgr.h"

namespace {

constexpr char kLogTag[] = "QelCam/HostTaskMgr";

// How long runnable queues may wait while every worker is busy with a task and none comes back for
// more, before another worker starts: short tasks never cause one, a blocked task costs this once.
constexpr auto kStallLimit = std::chrono::milliseconds(2);
// How long a surplus worker waits for work before it ends, unless a test sets another time.
constexpr std::chrono::milliseconds kIdleLinger = std::chrono::seconds(5);

using Task = std::unique_ptr<std::function<void()>>;

// A task and its number: every task of the process is numbered in posting order, from 1.
struct PostedTask {
  uint64_t number;
  Task body;
};

struct QueueState;
using QueueList = std::list<std::shared_ptr<QueueState>>;

// One queue's work. Shared by the queue object, the ready list and the worker running it, so that
// a queue dropped inside one of its own tasks leaves its remaining tasks runnable.
struct QueueState {
  explicit QueueState(std::string queueName) : name(std::move(queueName)) {}

  // Given to the worker thread while it runs the queue's tasks; at most 15 characters.
  std::string const name;

  std::mutex mutex;  // guards the fields below up to `registration`
  // Signalled after each task while someone waits for the queue to reach a count (`waiters`).
  std::condition_variable taskFinished;
  std::deque<PostedTask> tasks;
  uint64_t posted = 0;
  uint64_t finished = 0;
  int waiters = 0;
  // In the ready list or taken by a worker; cleared by the worker that finds no task left.
  bool scheduled = false;
  // The queue object went away inside one of its own tasks: whoever finishes its last task
  // unregisters it.
  bool orphaned = false;

  // Where the scheduler lists it as live; guarded by the scheduler's mutex.
  QueueList::iterator registration;
};

// The queue whose task this thread is running, if any.
thread_local QueueState const* tRunningQueue = nullptr;

// A worker carries the name of the queue whose task it runs, as a thread of its own would, so
// that traces and thread lists show which queue's work it is; renamed only when the queue changes.
void nameWorkerAfter(QueueState const& queue) {
  thread_local std::string current;
  if (current != queue.name) {
    pthread_setname_np(pthread_self(), queue.name.c_str());
    current = queue.name;
  }
}

class Scheduler {
 public:
  static Scheduler& instance() {
    static Scheduler* scheduler = new Scheduler;  // outlives the detached workers at exit
    return *scheduler;
  }

  std::shared_ptr<QueueState> addQueue(std::string const& name) {
    // Thread names are limited to 15 characters.
    auto queue = std::make_shared<QueueState>(name.substr(0, 15));
    std::lock_guard<std::mutex> lock(mMutex);
    queue->registration = mLive.insert(mLive.end(), queue);
    return queue;
  }

  void removeQueue(QueueState& queue) {
    std::lock_guard<std::mutex> lock(mMutex);
    mLive.erase(queue.registration);
  }

  // `queue` has just been marked scheduled with a task to run.
  void makeRunnable(std::shared_ptr<QueueState> queue) {
    std::lock_guard<std::mutex> lock(mMutex);
    mReady.push_back(std::move(queue));
    dispatchLocked();
  }

  void hold() {
    std::lock_guard<std::mutex> lock(mMutex);
    mHeld = true;
  }

  void release() {
    std::lock_guard<std::mutex> lock(mMutex);
    mHeld = false;
    dispatchLocked();
  }

  std::vector<std::shared_ptr<QueueState>> liveQueues() {
    std::lock_guard<std::mutex> lock(mMutex);
    return {mLive.begin(), mLive.end()};
  }

  qelcam::host::TaskWorkerStats stats() {
    std::lock_guard<std::mutex> lock(mMutex);
    return {mStarted, mWorkers, mMinWorkers, mLive.size()};
  }

  void setLinger(std::chrono::milliseconds linger) {
    std::lock_guard<std::mutex> lock(mMutex);
    mLinger = linger;
  }

  void waitWorkersAtMost(uint64_t count) {
    std::unique_lock<std::mutex> lock(mMutex);
    mWorkerEnded.wait(lock, [&] { return mWorkers <= count; });
  }

 private:
  Scheduler() : mMinWorkers(std::max(2u, std::thread::hardware_concurrency())) {
    std::unique_lock<std::mutex> lock(mMutex);
    for (unsigned i = 0; i < mMinWorkers; ++i) {
      startWorkerLocked(lock);
    }
    std::thread monitor(&Scheduler::runMonitor, this);
    pthread_setname_np(monitor.native_handle(), "ctm-monitor");
    monitor.detach();
  }

  void runWorker() {
    // Queue work is background work: a worker woken by a post never preempts the poster, which
    // would otherwise wait for the task's time slice to return from the post.
    sched_param const batch{};
    pthread_setschedparam(pthread_self(), SCHED_BATCH, &batch);
    std::unique_lock<std::mutex> lock(mMutex);
    --mStarting;
    for (;;) {
      if (!mHeld && !mReady.empty()) {
        runOneTask(lock);
      } else if (!waitForWork(lock)) {
        break;
      }
    }
    --mWorkers;
    mWorkerEnded.notify_all();
  }

  // Takes the queue at the front of the ready list, runs its next task without any lock held and
  // puts the queue back at the end if it has more.
  void runOneTask(std::unique_lock<std::mutex>& lock) {
    std::shared_ptr<QueueState> queue = std::move(mReady.front());
    mReady.pop_front();
    ++mTakes;
    Task task = takeFrontTask(*queue);
    dispatchLocked();
    lock.unlock();
    nameWorkerAfter(*queue);
    runTask(*queue, task);
    lock.lock();
    finishTaskLocked(std::move(queue));
  }

  // Taken under the scheduler's mutex too, so that no task starts once holdQueues returns.
  static Task takeFrontTask(QueueState& queue) {
    std::lock_guard<std::mutex> queueLock(queue.mutex);
    Task task = std::move(queue.tasks.front().body);
    queue.tasks.pop_front();
    return task;
  }

  static void runTask(QueueState const& queue, Task& task) {
    QueueState const* const outer = tRunningQueue;
    tRunningQueue = &queue;
    (*task)();
    // The callable may own objects whose destructors post, wait or drop this very queue.
    task.reset();
    tRunningQueue = outer;
  }

  // After one of the queue's tasks ran: counts it, wakes its waiters and puts the queue back at the
  // end of the ready list if it has more, behind the queues already waiting.
  void finishTaskLocked(std::shared_ptr<QueueState> queue) {
    bool more;
    {
      std::lock_guard<std::mutex> queueLock(queue->mutex);
      ++queue->finished;
      more = !queue->tasks.empty();
      queue->scheduled = more;
      if (queue->waiters > 0) {
        queue->taskFinished.notify_all();
      }
      if (!more && queue->orphaned) {
        // Under both locks: a waiter never sees the last task finished and the queue still live.
        mLive.erase(queue->registration);
      }
    }
    if (more) {
      mReady.push_back(std::move(queue));
    }
  }

 public:
  // Runs on the calling thread the queue's tasks up to and including the one numbered `number`,
  // while the queues are held; true when that task ran here. A queue that a worker took before the
  // hold is waited for, so that its tasks still run one at a time.
  bool runHeldTasksUpTo(std::shared_ptr<QueueState> const& queue, uint64_t number) {
    bool ran = false;
    std::unique_lock<std::mutex> lock(mMutex);
    for (;;) {
      if (!mHeld) {
        return ran;
      }
      {
        std::unique_lock<std::mutex> queueLock(queue->mutex);
        if (queue->tasks.empty() || queue->tasks.front().number > number) {
          return ran;
        }
        ran = queue->tasks.front().number == number;
      }
      auto const ready = std::find(mReady.begin(), mReady.end(), queue);
      if (ready == mReady.end()) {
        waitForWorkerLocked(lock, *queue);
        continue;
      }
      mReady.erase(ready);
      Task task = takeFrontTask(*queue);
      lock.unlock();
      runTask(*queue, task);
      lock.lock();
      finishTaskLocked(queue);
    }
  }

  // The live queue holding the task numbered `number`, if it has not run yet.
  std::shared_ptr<QueueState> queueOfTask(uint64_t number) {
    std::lock_guard<std::mutex> lock(mMutex);
    for (auto const& queue : mLive) {
      std::lock_guard<std::mutex> queueLock(queue->mutex);
      for (auto const& task : queue->tasks) {
        if (task.number == number) {
          return queue;
        }
      }
    }
    return nullptr;
  }

  void setWaitRunsHeld(bool on) {
    std::lock_guard<std::mutex> lock(mMutex);
    mWaitRunsHeld = on;
  }

  bool waitRunsHeld() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mWaitRunsHeld && mHeld;
  }

  // Numbers a task as it is posted; called under the queue's mutex, so that a queue's tasks are
  // numbered in their order.
  uint64_t numberTask() {
    // Relaxed: the number orders nothing else; the task itself is handed over under the queue's
    // mutex.
    return mPosted.fetch_add(1, std::memory_order_relaxed) + 1;
  }

  uint64_t tasksPosted() const {
    // Relaxed: read by the thread that posted, or as a figure only.
    return mPosted.load(std::memory_order_relaxed);
  }

 private:
  // Waits, with the scheduler's mutex dropped, until the worker running one of the queue's tasks
  // finishes it.
  void waitForWorkerLocked(std::unique_lock<std::mutex>& lock, QueueState& queue) {
    lock.unlock();
    {
      std::unique_lock<std::mutex> queueLock(queue.mutex);
      uint64_t const finished = queue.finished;
      ++queue.waiters;
      queue.taskFinished.wait(queueLock, [&] { return queue.finished > finished; });
      --queue.waiters;
    }
    lock.lock();
  }

  // Waits idle until woken for work (true) or until it has idled long enough to end as a surplus
  // worker (false).
  bool waitForWork(std::unique_lock<std::mutex>& lock) {
    ++mIdle;
    for (;;) {
      if (mWorkAvailable.wait_for(lock, mLinger, [this] { return mWakeTokens > 0; })) {
        --mWakeTokens;
        return true;
      }
      if (mWorkers > mMinWorkers && (mHeld || mReady.empty())) {
        --mIdle;
        return false;
      }
    }
  }

  // Wakes one idle worker per runnable queue that has no worker on its way, and tells the monitor
  // when every worker is busy.
  void dispatchLocked() {
    while (!mHeld && mReady.size() > mWakeTokens + mStarting && mIdle > 0) {
      --mIdle;
      ++mWakeTokens;
      mWorkAvailable.notify_one();
    }
    if (mMonitorWaiting && starvingLocked()) {
      mStarving.notify_one();
    }
  }

  // Runnable queues and no worker that will look for them before finishing a task.
  bool starvingLocked() const {
    return !mHeld && !mReady.empty() && mIdle == 0 && mWakeTokens == 0 && mStarting == 0;
  }

  // Starts a worker when runnable queues have waited a whole stall limit without any worker coming
  // back for one.
  void runMonitor() {
    std::unique_lock<std::mutex> lock(mMutex);
    for (;;) {
      mMonitorWaiting = true;
      mStarving.wait(lock, [this] { return starvingLocked(); });
      mMonitorWaiting = false;
      uint64_t const takes = mTakes;
      auto const deadline = std::chrono::steady_clock::now() + kStallLimit;
      mStarving.wait_until(lock, deadline, [this] { return !starvingLocked(); });
      if (starvingLocked() && mTakes == takes) {
        startWorkerLocked(lock);
      }
    }
  }

  // Drops the lock while the thread starts; it counts as a worker on its way from now on.
  void startWorkerLocked(std::unique_lock<std::mutex>& lock) {
    ++mWorkers;
    ++mStarting;
    ++mStarted;
    lock.unlock();
    try {
      std::thread worker(&Scheduler::runWorker, this);
      pthread_setname_np(worker.native_handle(), "ctm-worker");
      worker.detach();
      lock.lock();
    } catch (std::system_error const& e) {
      __android_log_print(ANDROID_LOG_ERROR, kLogTag, "[%s] no worker started: %s", __func__,
                          e.what());
      lock.lock();
      --mWorkers;
      --mStarting;
      --mStarted;
    }
  }

  unsigned const mMinWorkers;  // kept even when idle, so that a post finds a worker waiting

  std::mutex mMutex;  // guards every field below; taken before any queue's mutex
  std::condition_variable mWorkAvailable;          // idle workers wait here for a wake token
  std::condition_variable mStarving;               // the monitor waits here
  std::condition_variable mWorkerEnded;            // signalled whenever a surplus worker ends
  std::deque<std::shared_ptr<QueueState>> mReady;  // scheduled queues no worker has taken
  QueueList mLive;                                 // every queue with an owner or work left
  bool mHeld = false;
  unsigned mWorkers = 0;     // alive, starting ones included
  unsigned mStarting = 0;    // started, not yet looking for work
  unsigned mIdle = 0;        // waiting for work, not yet woken
  unsigned mWakeTokens = 0;  // wake-ups sent to idle workers and not yet taken up
  uint64_t mTakes = 0;       // queues taken from the ready list: the monitor's sign of progress
  uint64_t mStarted = 0;     // workers ever started
  bool mMonitorWaiting = false;
  bool mWaitRunsHeld = false;        // a caller about to wait for a held task runs it itself
  std::atomic<uint64_t> mPosted{0};  // tasks ever posted: the number of the newest
  std::chrono::milliseconds mLinger = kIdleLinger;
};

class HostTaskHandle : public NSCam::CTM::TaskHandle {
 public:
  HostTaskHandle() = default;
  HostTaskHandle(std::weak_ptr<QueueState> queue, uint64_t number)
      : mQueue(std::move(queue)), mNumber(number) {}

  void setFuture(std::shared_future<void> future) override {
    std::lock_guard<std::mutex> lock(mMutex);
    mFuture = std::move(future);
  }
  // The poster takes the future to wait for the task: with the queues held and waits running held
  // tasks, the task runs here first, so that the wait returns.
  std::shared_future<void> getFuture() override {
    if (mNumber != 0 && Scheduler::instance().waitRunsHeld()) {
      if (auto queue = mQueue.lock()) {
        Scheduler::instance().runHeldTasksUpTo(queue, mNumber);
      }
    }
    std::lock_guard<std::mutex> lock(mMutex);
    return mFuture;
  }

 private:
  std::weak_ptr<QueueState> const mQueue{};
  uint64_t const mNumber = 0;  // 0: nothing was posted
  std::mutex mMutex;
  std::shared_future<void> mFuture;
};

}  // namespace

namespace NSCam {
namespace CTM {

class TaskQueue {
 public:
  explicit TaskQueue(std::string const& name) : mState(Scheduler::instance().addQueue(name)) {}

  // Waits until every task posted has run, unless called from one of those tasks: the remaining
  // tasks then still run, after it.
  ~TaskQueue() {
    {
      std::unique_lock<std::mutex> lock(mState->mutex);
      if (tRunningQueue == mState.get()) {
        mState->orphaned = true;
        return;
      }
      ++mState->waiters;
      mState->taskFinished.wait(lock, [this] { return mState->finished == mState->posted; });
      --mState->waiters;
    }
    Scheduler::instance().removeQueue(*mState);
  }

  TaskQueue(TaskQueue const&) = delete;
  TaskQueue& operator=(TaskQueue const&) = delete;

  // Returns a handle that knows the task's number and queue.
  std::shared_ptr<HostTaskHandle> post(Task task) {
    bool wasIdle;
    uint64_t number;
    {
      std::lock_guard<std::mutex> lock(mState->mutex);
      number = Scheduler::instance().numberTask();
      mState->tasks.push_back({number, std::move(task)});
      ++mState->posted;
      wasIdle = !mState->scheduled;
      mState->scheduled = true;
    }
    if (wasIdle) {
      Scheduler::instance().makeRunnable(mState);
    }
    return std::make_shared<HostTaskHandle>(mState, number);
  }

 private:
  std::shared_ptr<QueueState> const mState;
};

std::shared_ptr<TaskQueue> CentralTaskMgr::createQueue(QueueParam const& param) {
  return std::make_shared<TaskQueue>(param.name);
}

std::shared_ptr<TaskHandle> CentralTaskMgr::_asyncPost(
    std::shared_ptr<TaskQueue>& queue, unsigned int /*priority*/,
    std::unique_ptr<std::function<void()>>& task) {
  auto handle = std::make_shared<HostTaskHandle>();
  if (!task || !*task) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "[%s] empty task, nothing posted", __func__);
    task.reset();
    return handle;
  }
  if (!queue) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "[%s] no queue, task dropped", __func__);
    task.reset();
    return handle;
  }
  return queue->post(std::move(task));
}

}  // namespace CTM
}  // namespace NSCam

namespace qelcam {
namespace host {

void holdQueues() {
  Scheduler::instance().hold();
}

void releaseQueues() {
  Scheduler::instance().release();
}

void waitQueuesIdle() {
  for (auto const& queue : Scheduler::instance().liveQueues()) {
    std::unique_lock<std::mutex> lock(queue->mutex);
    uint64_t const target = queue->posted;
    ++queue->waiters;
    queue->taskFinished.wait(lock, [&] { return queue->finished >= target; });
    --queue->waiters;
  }
}

uint64_t tasksPosted() {
  return Scheduler::instance().tasksPosted();
}

bool runHeldTask(uint64_t number) {
  auto queue = Scheduler::instance().queueOfTask(number);
  return queue != nullptr && Scheduler::instance().runHeldTasksUpTo(queue, number);
}

void setWaitRunsHeldTasks(bool on) {
  Scheduler::instance().setWaitRunsHeld(on);
}

TaskWorkerStats taskWorkerStats() {
  return Scheduler::instance().stats();
}

void setTaskWorkerLinger(std::chrono::milliseconds linger) {
  Scheduler::instance().setLinger(linger);
}

void waitTaskWorkersAtMost(uint64_t count) {
  Scheduler::instance().waitWorkersAtMost(count);
}

}  // namespace host
}  // namespace qelcam
