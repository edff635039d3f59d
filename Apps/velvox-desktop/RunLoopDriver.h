#pragma once

// The library's run loop served by Qt's: a socket notifier on the loop's
// descriptor (readable exactly while work waits) and one single-shot timer
// for the loop's next timer, re-armed before Qt's loop sleeps. No thread, no
// polling: Qt wakes only when the library has something to do.

#include <QObject>
#include <QSocketNotifier>
#include <QTimer>

#include <functional>
#include <memory>

namespace velvox::desktop {

class RunLoopDriver final : public QObject {
    Q_OBJECT
public:
    explicit RunLoopDriver(QObject* parent = nullptr);
    ~RunLoopDriver() override;

    // Handles what is ready now, then re-arms the timer.
    void serve();
    // Re-arms the timer for the loop's next timer (none when it has none).
    void rearm();

signals:
    // An exception left the library's work (a programming error); the
    // window's status bar says so and the program goes on.
    void failed(const QString& message);

private:
    std::unique_ptr<QSocketNotifier> m_notifier;
    QTimer m_timer;
    bool m_serving { false };
};

// Runs Qt's loop (and through it the library's) until the condition holds,
// checked every few milliseconds, for at most `seconds`; whether it held.
// For tests and measurements, which wait for what windows do.
bool runQtUntil(const std::function<bool()>& condition, double seconds);

} // namespace velvox::desktop
