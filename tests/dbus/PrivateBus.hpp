#pragma once

#include <string>
#include <vector>

#include <QDBusConnection>
#include <QProcess>
#include <QString>

#include "support/TemporaryDirectory.hpp"

namespace tarn::test {

// A D-Bus daemon of the test's own, so that its players and observers never meet the desktop's
// session bus or each other's. Stopped, with every connection made to it, when the object goes.
class PrivateBus {
public:
    PrivateBus();
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    bool isRunning() const { return !address_.isEmpty(); }
    const std::string& failure() const { return failure_; }
    const QString& address() const { return address_; }

    // A new connection of its own (its own unique name, as another application would have).
    QDBusConnection connect();

private:
    TemporaryDirectory folder_;
    QProcess daemon_;
    QString address_;
    std::string failure_;
    std::vector<QString> connectionNames_;
};

} // namespace tarn::test
