#include "RunLoopDriver.h"

#include <Platform/RunLoop.h>

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>

#include <cmath>
#include <exception>

namespace velvox::desktop {

RunLoopDriver::RunLoopDriver(QObject* parent)
    : QObject(parent)
{
    auto& loop = RunLoop::current();
    m_notifier = std::make_unique<QSocketNotifier>(loop.eventDescriptor(), QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this, &RunLoopDriver::serve);
    m_timer.setSingleShot(true);
    m_timer.setTimerType(Qt::PreciseTimer);
    connect(&m_timer, &QTimer::timeout, this, &RunLoopDriver::serve);
    // A call made from a Qt handler (a click) may schedule a timer without
    // posting a task: the timer is armed again before Qt's loop sleeps.
    if (auto* dispatcher = QAbstractEventDispatcher::instance())
        connect(dispatcher, &QAbstractEventDispatcher::aboutToBlock, this, &RunLoopDriver::rearm);
    rearm();
}

RunLoopDriver::~RunLoopDriver() = default;

void RunLoopDriver::serve()
{
    // A block that opens a modal dialog would serve the loop again from inside.
    if (m_serving)
        return;
    m_serving = true;
    try {
        RunLoop::current().runUntilIdle();
    } catch (const std::exception& exception) {
        emit failed(QString::fromUtf8(exception.what()));
    } catch (...) {
        emit failed(QStringLiteral("an unknown exception"));
    }
    m_serving = false;
    rearm();
}

void RunLoopDriver::rearm()
{
    double seconds = RunLoop::current().timeUntilNextTimer();
    if (!std::isfinite(seconds)) {
        m_timer.stop();
        return;
    }
    // Rounded up, so that the timer is due when Qt wakes; at most a day.
    int milliseconds = static_cast<int>(std::ceil(std::min(seconds, 86400.0) * 1000));
    if (m_timer.isActive() && std::abs(m_timer.remainingTime() - milliseconds) <= 1)
        return;
    m_timer.start(milliseconds);
}

bool runQtUntil(const std::function<bool()>& condition, double seconds)
{
    QElapsedTimer clock;
    clock.start();
    while (!condition()) {
        if (clock.elapsed() > seconds * 1000)
            return false;
        QEventLoop loop;
        QTimer::singleShot(2, &loop, &QEventLoop::quit);
        loop.exec();
    }
    return true;
}

} // namespace velvox::desktop
