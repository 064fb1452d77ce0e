#include "Engine/utilities/WorkerThread.h"

#include <atomic>
#include <pthread.h>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/ThreadListener.h"

#include "tests/support/Child.h"
#include "tests/threads/ThreadSupport.h"
#include "tests/threads/WorkerSupport.h"

namespace {

// Remembers what it is told instead of taking note.
class Recorder : public ThreadListener {
 public:
  using ThreadListener::ThreadListener;

  void notify(pthread_t id, int result) override {
    toldId = id;
    toldResult = result;
    toldOn = pthread_self();
    if (const auto* worker = dynamic_cast<WorkerThread*>(StdThread::currentThread())) {
      finished = worker->state() == WorkerThread::finished;
      workersResult = worker->result();
    }
    told.post();
  }

  std::atomic<pthread_t> toldId = 1;
  std::atomic<int> toldResult = 0;
  std::atomic<pthread_t> toldOn = 0;
  std::atomic<bool> finished = false;
  std::atomic<unsigned> workersResult = 0;
  UNIX_Event_Semaphore told;
};

std::string nameOf(const StdThread& thread) {
  const unsigned char* name = thread.name();
  return reinterpret_cast<const char*>(name);
}

}  // namespace

TEST(WorkerThread, AndItsRunnableHaveOneOperationEach) {
  EXPECT_EQ(virtualSlot(&Runnable::work), 0U);
  EXPECT_EQ(sizeof(Runnable), sizeof(void*));
  EXPECT_FALSE(std::has_virtual_destructor_v<Runnable>);
  EXPECT_EQ(virtualSlot(&WorkerThread::run), 2U);
}

TEST(WorkerThread, IsNamedThrdListenerWithTheDefaultStack) {
  QuickRunnable runnable;
  const Reference<ThreadListener> listener = ThreadListener::instance(runnable);
  const WorkerThread* worker = unstartedWorker();
  ASSERT_NE(worker, nullptr);
  EXPECT_EQ(nameOf(*worker), "ThrdListener");
  EXPECT_EQ(worker->stackSize(), StdThread::defaultStackSize());
  EXPECT_EQ(worker->threadId(), 0U);
}

TEST(WorkerThread, IsDetached) {
  std::atomic<int> state = -1;
  FunctionRunnable runnable([&state] {
    pthread_attr_t attributes;
    EXPECT_EQ(pthread_getattr_np(pthread_self(), &attributes), 0);
    int detached = -1;
    EXPECT_EQ(pthread_attr_getdetachstate(&attributes, &detached), 0);
    pthread_attr_destroy(&attributes);
    state = detached;
    return 0;
  });
  const Reference<ThreadListener> listener = ThreadListener::instance(runnable);
  listener->start();
  listener->semaphore().wait();
  EXPECT_EQ(state, PTHREAD_CREATE_DETACHED);
}

TEST(WorkerThread, PassesFromCreatedToRunningToFinished) {
  EXPECT_EQ(static_cast<unsigned>(WorkerThread::created), 1U);
  EXPECT_EQ(static_cast<unsigned>(WorkerThread::running), 2U);
  EXPECT_EQ(static_cast<unsigned>(WorkerThread::finished), 3U);
  const WorkerThread* worker = nullptr;
  WorkerThread::State inWork = WorkerThread::created;
  FunctionRunnable runnable([&worker, &inWork] {
    inWork = worker->state();
    return -1;
  });
  const Reference<ThreadListener> listener = ThreadListener::instance(runnable);
  WorkerThread* made = unstartedWorker();
  ASSERT_NE(made, nullptr);
  worker = made;
  EXPECT_EQ(made->state(), WorkerThread::created);
  EXPECT_EQ(made->result(), 0U);
  // On this thread the object stays.
  made->run();
  EXPECT_EQ(inWork, WorkerThread::running);
  EXPECT_EQ(made->state(), WorkerThread::finished);
  EXPECT_EQ(made->result(), 0xFFFFFFFFU);
  EXPECT_EQ(listener->result(), -1);
  EXPECT_FALSE(listener->semaphore().wait(0, CUL_Event_Semaphore::Seconds, false));
}

TEST(WorkerThread, OnlyACreatedOneIsStarted) {
  const WorkerThread* working = nullptr;
  std::vector<WorkerThread::State> inWork;
  FunctionRunnable runnable([&working, &inWork] {
    inWork.push_back(working->state());
    return 0;
  });
  const Reference<ThreadListener> listener = ThreadListener::instance(runnable);
  WorkerThread* worker = unstartedWorker();
  ASSERT_NE(worker, nullptr);
  working = worker;
  worker->run();
  EXPECT_EQ(worker->start(), 0U);
  listener->semaphore().reset();
  EXPECT_EQ(listener->start(), 0U);
  EXPECT_EQ(listener->threadId(), 0U);
  worker->run();  // does the work again, but stays finished
  EXPECT_EQ(worker->state(), WorkerThread::finished);
  EXPECT_EQ(inWork, (std::vector{WorkerThread::running, WorkerThread::finished}));
}

TEST(WorkerThread, TellsItsListenerOnItsOwnThreadAndLetsItGo) {
  QuickRunnable runnable(71);
  const Reference<Recorder> recorder(new Recorder(runnable));
  const pthread_t id = recorder->start();
  recorder->told.wait();
  EXPECT_EQ(recorder->toldId, id);
  EXPECT_EQ(recorder->toldOn, id);
  EXPECT_EQ(recorder->toldResult, 71);
  EXPECT_TRUE(recorder->finished);
  EXPECT_EQ(recorder->workersResult, 71U);
  EXPECT_TRUE(waitUntil([&recorder] { return recorder->referenceCount() == 1; }));
  EXPECT_EQ(RunningThreads::instance().find(id), nullptr);
}

TEST(WorkerThread, MayBeASecondOneOfAListener) {
  QuickRunnable unused;
  QuickRunnable runnable(72);
  const Reference<Recorder> recorder(new Recorder(unused));
  (new WorkerThread(*recorder, runnable))->start_thread(0);
  recorder->told.wait();
  // No id was noted for it.
  EXPECT_EQ(recorder->toldId, 0U);
  EXPECT_EQ(recorder->toldResult, 72);
  EXPECT_TRUE(waitUntil([&recorder] { return recorder->referenceCount() == 2; }));
  EXPECT_EQ(unused.runs, 0);
}

CUL_CHILD(OneRun) {
  QuickRunnable runnable;
  Reference<ThreadListener> listener = ThreadListener::instance(runnable);
  listener->start();
  listener->semaphore().wait();
  EXPECT_TRUE(waitUntil([&listener] { return listener->referenceCount() == 1; }));
}

TEST(WorkerThread, StartsAndEndsInTheTrace) {
  const TracedChild child("OneRun");
  EXPECT_EQ(child.result.status, 0) << child.all();
  EXPECT_EQ(child.countContaining("Starting thread ThrdListener"), 1) << child.all();
  EXPECT_EQ(child.countContaining("Terminating thread ThrdListener"), 1) << child.all();
}
