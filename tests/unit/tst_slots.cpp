// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include <authd/authplugininterface.h>
#include <authd/factorsettingsbase.h>
#include <authd/validationscope.h>

#include <QTest>

#include <cstring>
#include <new>

// Methods and the daemon are built separately, so the virtual tables of the platform's classes are their ABI.

namespace {

/// The position of a virtual function in the virtual table, from 1; 0 if the function is not virtual.
template <typename Function>
int slotOf(Function function)
{
    struct
    {
        std::ptrdiff_t pointer;
        std::ptrdiff_t adjustment;
    } raw;
    static_assert(sizeof raw == sizeof function, "pointers to members are not laid out as expected");
    std::memcpy(&raw, &function, sizeof raw);
#if defined(__arm__) || defined(__aarch64__)
    const bool isVirtual = raw.adjustment & 1;
    const std::ptrdiff_t offset = raw.pointer;
#else
    const bool isVirtual = raw.pointer & 1;
    const std::ptrdiff_t offset = raw.pointer - 1;
#endif
    return isVirtual ? int(offset / std::ptrdiff_t(sizeof(void *))) + 1 : 0;
}

class Probe : public AuthPluginInterface
{
    Q_OBJECT

public:
    static int destroyed;
    static int freed;

    Probe()
        : AuthPluginInterface(QStringLiteral("probe"))
    {
    }
    ~Probe() override { ++destroyed; }
    static void operator delete(void *memory)
    {
        ++freed;
        ::operator delete(memory);
    }
    static void operator delete(void *, void *) { }
    static void *operator new(std::size_t size) { return ::operator new(size); }
    static void *operator new(std::size_t, void *place) { return place; }

    QString name() const override { return QStringLiteral("probe"); }
    const QMap<QString, QVariant> &defaultOptions(uint) override { return m_options; }
    QVariant getOption(uint, const QString &) override { return {}; }
    const ValidationScope &getOptionsValidations(uint) override { return m_scope; }
    const AuthUiPages &pages() const override { return m_pages; }
    int types() const override { return 0; }
    QString getErrorMessage(int) const override { return {}; }
    void reset() override { }
    void authenticate(uint, const QMap<QString, QVariant> &) override { }
    bool isAvailable(uint) override { return true; }
    void handleUserSessionTriggered(uint, bool, bool) override { }
    QString getAuthData(const QMap<QString, QVariant> &) override { return {}; }
    int increaseAttempts(uint) override { return 0; }
    int getAttempts(uint) override { return 0; }
    void resetAttempts(uint) override { }
    virtual void oneMore() { }

    using QObject::childEvent;
    using QObject::connectNotify;
    using QObject::customEvent;
    using QObject::disconnectNotify;
    using QObject::timerEvent;

private:
    QMap<QString, QVariant> m_options;
    ValidationScope m_scope;
    AuthUiPages m_pages;
};

int Probe::destroyed = 0;
int Probe::freed = 0;

class SettingsProbe : public FactorSettingsBase
{
public:
    using FactorSettingsBase::handleOptionChanged;
    virtual void oneMore() { }
};

using Base = LibAuthd::BaseHandler;
using Plugin = AuthPluginInterface;
using Map = QMap<QString, QVariant>;

} // namespace

class TstSlots : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void operations_data();
    void operations();
    void destructors();
    void nothingElse();
    void settings();
};

void TstSlots::operations_data()
{
    QTest::addColumn<int>("slot");
    QTest::addColumn<int>("expected");
    // The cast checks the signature, the row the position. In parentheses, the expression would not be a pointer to
    // member. NOLINTNEXTLINE(bugprone-macro-parentheses)
#define ROW(expected, type, function) QTest::newRow(#function) << slotOf(static_cast<type>(&function)) << expected
    ROW(1, const QMetaObject *(Plugin::*)() const, Plugin::metaObject);
    ROW(2, void *(Plugin::*)(const char *), Plugin::qt_metacast);
    ROW(3, int(Plugin::*)(QMetaObject::Call, int, void **), Plugin::qt_metacall);
    ROW(6, bool(QObject::*)(QEvent *), Plugin::event);
    ROW(7, bool(QObject::*)(QObject *, QEvent *), Plugin::eventFilter);
    ROW(8, void(Probe::*)(QTimerEvent *), Probe::timerEvent);
    ROW(9, void(Probe::*)(QChildEvent *), Probe::childEvent);
    ROW(10, void(Probe::*)(QEvent *), Probe::customEvent);
    ROW(11, void(Probe::*)(const QMetaMethod &), Probe::connectNotify);
    ROW(12, void(Probe::*)(const QMetaMethod &), Probe::disconnectNotify);
    ROW(13, QString(Base::*)() const, Plugin::name);
    ROW(14, const Map &(Base::*)(uint), Plugin::defaultOptions);
    ROW(15, QVariant(Base::*)(uint, const QString &), Plugin::getOption);
    ROW(16, bool(Base::*)(uint, const QString &, const QVariant &), Plugin::setOption);
    ROW(17, bool(Base::*)(uint, const QString &, const Map &), Plugin::action);
    ROW(18, const ValidationScope &(Base::*)(uint), Plugin::getOptionsValidations);
    ROW(19, const ValidationScope &(Base::*)(), Plugin::getActionsValidations);
    ROW(20, void(Base::*)(uint), Plugin::handleUserRemovedInternal);
    ROW(21, void(Base::*)(uint, const QString &, const QVariant &), Plugin::handleOptionChanged);
    ROW(22, void(Plugin::*)(NotificationHandler *), Plugin::setNotificator);
    ROW(23, const AuthUiPages &(Plugin::*)() const, Plugin::pages);
    ROW(24, int(Plugin::*)() const, Plugin::types);
    ROW(25, QString(Plugin::*)(int) const, Plugin::getErrorMessage);
    ROW(26, bool(Plugin::*)(uint), Plugin::canSwitchToUser);
    ROW(27, void(Plugin::*)(), Plugin::reset);
    ROW(28, void(Plugin::*)(uint, const Map &), Plugin::authenticate);
    ROW(29, bool(Plugin::*)(uint), Plugin::isAvailable);
    ROW(30, bool(Plugin::*)(uint, const Map &), Plugin::changeAuthData);
    ROW(31, void(Plugin::*)(uint, bool, bool), Plugin::handleUserSessionTriggered);
    ROW(32, void(Plugin::*)(uint, bool, const QString &, uint), Plugin::handleUserLocked);
    ROW(33, void(Plugin::*)(long), Plugin::handleTimeSettingsChanged);
    ROW(34, void(Plugin::*)(uint, bool), Plugin::handleSetEnabled);
    ROW(35, bool(Plugin::*)(uint) const, Plugin::hasAuthData);
    ROW(36, QString(Plugin::*)(const Map &), Plugin::getAuthData);
    ROW(37, int(Plugin::*)(uint), Plugin::increaseAttempts);
    ROW(38, int(Plugin::*)(), Plugin::getMaxAttempts);
    ROW(39, int(Plugin::*)(uint), Plugin::getAttempts);
    ROW(40, void(Plugin::*)(uint), Plugin::resetAttempts);
    ROW(41, bool(Plugin::*)(uint), Plugin::needChangeNextTime);
    ROW(42, bool(Plugin::*)(uint) const, Plugin::wasChosen);
    ROW(43, bool(Plugin::*)(uint), Plugin::checkBackend);
    ROW(44, void(Plugin::*)(), Plugin::onMainPageVisibleChanged);
#undef ROW
}

void TstSlots::operations()
{
    QFETCH(int, slot);
    QTEST(slot, "expected");
}

void TstSlots::destructors()
{
    // There are no pointers to destructors, so call the functions at positions 4 and 5 of an object's table.
    using Entry = void (*)(void *);
    const auto entry = [](const QObject *object, int place) {
        const Entry *table = nullptr;
        std::memcpy(&table, static_cast<const void *>(object), sizeof table);
        return table[place - 1];
    };

    alignas(Probe) char memory[sizeof(Probe)];
    auto *placed = new (memory) Probe;
    entry(placed, 4)(placed);
    QCOMPARE(Probe::destroyed, 1);
    QCOMPARE(Probe::freed, 0);

    auto *allocated = new Probe;
    entry(allocated, 5)(allocated);
    QCOMPARE(Probe::destroyed, 2);
    QCOMPARE(Probe::freed, 1);
}

void TstSlots::nothingElse()
{
    QCOMPARE(slotOf(&Probe::oneMore), 45);
    QCOMPARE(slotOf(&AuthPluginInterface::succeed), 0);
    QCOMPARE(slotOf(&AuthPluginInterface::finish), 0);
    QCOMPARE(slotOf(&AuthPluginInterface::inputRequested), 0);
    QCOMPARE(slotOf(&AuthPluginInterface::restartAuth), 0);
    QCOMPARE(slotOf(&AuthPluginInterface::lockUser), 0);
    QCOMPARE(slotOf(&Base::getOptionInternal), 0);
    QCOMPARE(slotOf(&Base::setOptionInternal), 0);
    QCOMPARE(slotOf(&Base::optionChanged), 0);
    QCOMPARE(slotOf(&Base::logEvent), 0);
    QCOMPARE(qobject_interface_iid<AuthPluginInterface *>(), "qarv.authplugin");
}

void TstSlots::settings()
{
    QCOMPARE(slotOf(&SettingsProbe::handleOptionChanged), 13);
    QCOMPARE(slotOf(&SettingsProbe::oneMore), 14);
    QCOMPARE(slotOf(&FactorSettingsBase::getOption), 0);
}

QTEST_APPLESS_MAIN(TstSlots)

#include "tst_slots.moc"
