// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <authd/authdexport.h>

#include <QMap>
#include <QObject>
#include <QString>
#include <QVariant>

class NotificationHandler;
class ValidationScope;

namespace LibAuthd {

/// Base of everything that has options in the daemon: knows its name, its options and where they are stored.
///
/// The order of the virtual functions is binary interface: methods and daemon are built apart. New ones go to the end
/// of the last class, none is moved or removed.
class AUTHD_EXPORT BaseHandler : public QObject
{
    Q_OBJECT

public:
    /// A handler whose options are stored under `name`. The name must be a file name without "/", and as option names
    /// it must be free of control characters, "=", "[" and "]", not begin with "#", and neither begin nor end with
    /// white space; under any other name nothing can be stored.
    explicit BaseHandler(const QString &name, QObject *parent = nullptr);
    ~BaseHandler() override;

    /// The name under which the daemon knows this handler.
    virtual QString name() const = 0;
    /// The options that exist with their default values: the method-wide ones for `uid` 0, else those of each user.
    /// The variants' types are the options' types. The map belongs to the handler.
    virtual const QMap<QString, QVariant> &defaultOptions(uint uid) = 0;
    /// The value of an option that the handler computes itself; an invalid variant when it is not computed, so that the
    /// stored value counts.
    virtual QVariant getOption(uint uid, const QString &option) = 0;
    /// Writes an option on behalf of somebody outside. Refuses, with false, an option that defaultOptions() does not
    /// name, and whatever setOptionInternal() refuses. The base writes it with setOptionInternal() and calls
    /// handleOptionChanged().
    virtual bool setOption(uint uid, const QString &option, const QVariant &value);
    /// Carries out a named action with parameters; false when there is no such action. The base knows none.
    virtual bool action(uint uid, const QString &action, const QMap<QString, QVariant> &params);
    /// Rules for writing options from outside: the method-wide ones for `uid` 0, else those of each user.
    virtual const ValidationScope &getOptionsValidations(uint uid) = 0;
    /// Rules for actions; empty in the base.
    virtual const ValidationScope &getActionsValidations();
    /// User `uid` has been removed from the system. The base forgets the user's stored options of this handler; for
    /// `uid` 0, which stands for the handler as a whole, it does nothing.
    virtual void handleUserRemovedInternal(uint uid);
    /// An option has been written from outside. The base does nothing.
    virtual void handleOptionChanged(uint uid, const QString &option, const QVariant &value);

    /// The stored value of `option` of user `uid` (0: of the handler as a whole); the default of defaultOptions() when
    /// none is stored or the store cannot be read; an invalid variant when there is no default either. What is damaged
    /// in the store is reported in the log, set aside under a name that ends in ".damaged", and counts as not stored.
    QVariant getOptionInternal(uint uid, const QString &option);
    /// Stores `value` durably and tells the daemon with optionChanged(). An invalid variant removes the stored value,
    /// and the daemon is told the default. Booleans, integers of 32 and 64 bits, doubles, strings, string lists and
    /// byte arrays can be stored and come back as the same type. What is stored already is neither written nor told
    /// again, so that repeating it costs next to nothing. False, with a warning in the log and nothing changed,
    /// when the value is of another type, is a subnormal double or text that UTF-8 cannot carry or that holds a zero
    /// character, when the option's name is none (see the constructor), or when it cannot be written. False, without
    /// a warning, when it is longer than 4096 characters, texts or bytes.
    bool setOptionInternal(uint uid, const QString &option, const QVariant &value);
    /// Tells the daemon that `option` of user `uid` now has `value`; nothing is stored. `computed` is passed on, see
    /// NotificationHandler::optionChanged().
    void optionChanged(uint uid, const QString &option, const QVariant &value, bool computed);
    /// Asks the daemon to record an event, see NotificationHandler::logEvent().
    void logEvent(const QString &level, const QString &event, const QString &details);

protected:
    /// Where notifications go; null until the daemon has set one, and then they are dropped. Not owned.
    NotificationHandler *m_notificator = nullptr;

private:
    const QString m_name;

    Q_DISABLE_COPY(BaseHandler)
};

} // namespace LibAuthd
