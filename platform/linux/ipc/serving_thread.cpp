#include "ipc/serving_thread.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <future>
#include <memory>
#include <utility>

#include "runtime/guard.h"
#include "runtime/platform_log.h"

namespace KITE::Linux {

namespace {

thread_local const ServingThread* current = nullptr;

std::error_code Connect(const std::string& address, BusHandle& connection) {
    sd_bus* bus = nullptr;
    const std::error_code error =
        address.empty()
            ? InOrder([&] { return sd_bus_open_system(&bus); })
            : InOrder([&] { return sd_bus_new(&bus); },
                      [&] { return sd_bus_set_address(bus, address.c_str()); },
                      [&] { return sd_bus_set_bus_client(bus, 1); }, [&] { return sd_bus_start(bus); });
    connection.reset(bus);
    // The bus has accepted us once it has given us a name; this waits for that.
    const char* uniqueName = nullptr;
    return error ? error : InOrder([&] { return sd_bus_get_unique_name(bus, &uniqueName); });
}

}  // namespace

ServingThread::ServingThread(Work closing)
    : closing_(std::move(closing)), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

std::error_code ServingThread::Start(const std::string& address, Work lost) {
    std::error_code error = Connect(address, connection_);
    if (!error) {
        error = PrepareLoop();
    }
    if (error) {
        Close();
        return error;
    }
    lost_ = std::move(lost);
    connected_ = true;
    {
        const std::lock_guard lock(mutex_);
        accepting_ = true;
    }
    thread_ = std::thread([this] { Serve(); });
    return {};
}

// Slots and sources that are not asked for live as long as the connection and the loop.
std::error_code ServingThread::PrepareLoop() {
    const auto onDisconnected = [](sd_bus_message*, void* self, sd_bus_error*) {
        static_cast<ServingThread*>(self)->LoseBus();
        return 0;
    };
    const auto onWake = [](sd_event_source*, int, uint32_t, void* self) {
        static_cast<ServingThread*>(self)->RunPosted();
        return 0;
    };
    sd_event* event = nullptr;
    const std::error_code error = InOrder(
        [&] { return sd_event_new(&event); },
        // Served by this loop, so that a thread that is stuck trips the supervisor's watchdog.
        [&] { return sd_event_set_watchdog(event, 1); },
        [&] { return sd_bus_attach_event(connection_.get(), event, SD_EVENT_PRIORITY_NORMAL); },
        [&] {
            return sd_bus_match_signal(connection_.get(), nullptr, nullptr, "/org/freedesktop/DBus/Local",
                                       "org.freedesktop.DBus.Local", "Disconnected", onDisconnected, this);
        },
        [&] { return sd_event_add_io(event, nullptr, wake_.Get(), EPOLLIN, onWake, this); });
    event_.reset(event);
    return error;
}

void ServingThread::Serve() {
    current = this;
    if (const int result = sd_event_loop(event_.get()); result < 0) {
        PLATFORM_LOGE("the bus is not served any more, its event loop failed: %{public}s",
                      ErrorOf(result).message().c_str());
        LoseBus();
    }
    {
        const std::lock_guard lock(mutex_);
        accepting_ = false;
    }
    RunPosted();
    Close();
    current = nullptr;
}

void ServingThread::LoseBus() {
    if (!connected_.exchange(false)) {
        return;
    }
    PLATFORM_LOGE("the connection to the bus is lost");
    RunGuarded("the handler of a lost bus", lost_);
}

// Pending calls end while the connection goes; what their receivers do then must not find it any more.
void ServingThread::Close() {
    connected_ = false;
    closing_();
    const BusHandle closing = std::move(connection_);
    const EventHandle ending = std::move(event_);
}

void ServingThread::Stop() {
    if (!thread_.joinable()) {
        return;
    }
    {
        const std::lock_guard lock(mutex_);
        if (std::exchange(accepting_, false)) {
            posted_.emplace_back([this] { sd_event_exit(event_.get(), 0); });
            eventfd_write(wake_.Get(), 1);
        }
    }
    thread_.join();
}

bool ServingThread::Post(Work work) {
    const std::lock_guard lock(mutex_);
    if (!accepting_) {
        return false;
    }
    posted_.push_back(std::move(work));
    if (posted_.size() == 1) {
        eventfd_write(wake_.Get(), 1);
    }
    return true;
}

void ServingThread::RunPosted() {
    std::deque<Work> posted;
    {
        const std::lock_guard lock(mutex_);
        eventfd_t ignored = 0;
        eventfd_read(wake_.Get(), &ignored);
        posted.swap(posted_);
    }
    for (const Work& work : posted) {
        RunGuarded("work on the thread that serves the bus", work);
    }
}

bool ServingThread::Run(const Work& work) {
    if (IsCurrent()) {
        work();
        return true;
    }
    const auto done = std::make_shared<std::promise<void>>();
    const std::future<void> isDone = done->get_future();
    const bool isPosted = Post([&work, done] {
        RunGuarded("work on the thread that serves the bus", work);
        done->set_value();
    });
    if (isPosted) {
        isDone.wait();
    }
    return isPosted;
}

bool ServingThread::IsCurrent() const {
    return current == this;
}

}  // namespace KITE::Linux
