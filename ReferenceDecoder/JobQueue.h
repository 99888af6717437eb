// The codec's jobs and the worker threads that run them.
#pragma once

#include <deque>
#include <memory>
#include <vector>

#include "Lock.h"
#include "Object.h"

namespace reference {

class JobQueue;

/// A unit of work behind IBlackmagicRawJob. Everything that the work needs, other than the caller's buffers,
/// is held by the job.
class Job : public Object<"IBlackmagicRawJob", IBlackmagicRawJob> {
public:
    explicit Job(std::shared_ptr<JobQueue> queue) : m_queue(std::move(queue)) {}

    HRESULT STDMETHODCALLTYPE Submit() override;
    HRESULT STDMETHODCALLTYPE SetUserData(void* userData) override;
    HRESULT STDMETHODCALLTYPE GetUserData(void** userData) override;

    /// On a worker: does the work and tells the callback, which may be null.
    void run(IBlackmagicRawCallback* callback) noexcept;

protected:
    virtual HRESULT work() = 0;
    virtual void report(IBlackmagicRawCallback& callback, HRESULT result) noexcept = 0;
    void finish() noexcept override { m_queue.reset(); }

private:
    std::shared_ptr<JobQueue> m_queue;
    std::atomic<void*> m_userData{nullptr};
    std::atomic<bool> m_isSubmitted{false};
    friend class JobQueue;
    bool m_isDone = false; ///< with the queue's lock held
};

/// Runs jobs on threads of its own, started as they are needed. Shared by the codec and its clips' jobs;
/// stops with the codec. Whoever waits for what, and which threads there are, is a matter of manners.
class JobQueue : public std::enable_shared_from_this<JobQueue> {
public:
    JobQueue();
    ~JobQueue();
    JobQueue(const JobQueue&) = delete;
    JobQueue& operator=(const JobQueue&) = delete;

    uint32_t threadLimit() const { return m_threadLimit; }
    void setCallback(IBlackmagicRawCallback* callback);

    /// Takes a reference for as long as the job waits and runs. Fails once the codec is gone.
    HRESULT submit(Job& job);
    /// Returns when no job waits or runs any more, and all their callbacks have returned. Where no one else
    /// would wait for the threads before the library is unloaded, they have ended too.
    void flush();
    /// Flushes and ends the threads. Called on one of them (a callback that held the codec's last reference)
    /// it returns at once, and the threads end when the last job is done.
    void stop();

private:
    struct Worker {
        HANDLE handle;
        DWORD id;
    };
    static DWORD WINAPI threadEntry(void* given);
    HRESULT enqueue(Job& job);
    void startWorker();
    void work();
    Job* takeJob();
    void runOne(Job* job);
    void endWorkers();
    bool isWorkerThread() const; ///< with the lock held

    const uint32_t m_threadLimit;
    Lock m_lock; ///< guards what follows; never held while a job runs
    Condition m_work, m_idle, m_oneDone;
    std::deque<Job*> m_jobs;
    std::vector<Worker> m_workers;
    uint64_t m_unfinished = 0; ///< waiting or running
    uint32_t m_idleWorkers = 0;
    bool m_isStopping = false;
    bool m_isEnding = false; ///< workers end that have nothing to do
    IBlackmagicRawCallback* m_callback = nullptr;
    bool m_countsCallback = false; ///< one reference is ours
};

} // namespace reference
