#pragma once

// Signals: a typed list of callbacks that an object emits when something about it changes.
//
//   SignalImpl<int> changed;                        // or Signal<int>
//   changed.connect([](int v) { ... });             // lives as long as the signal
//   changed.connect(&receiver, [&](int v) { ... }); // broken when `receiver` dies
//   changed.emitSignal(3);
//   { SignalBlocker block(changed); ... }           // nothing is emitted inside
//
// A `SignalReceiver` remembers the signals it is connected to and disconnects from all of them
// in its destructor; a signal that dies first removes itself from its receivers. Connecting,
// disconnecting and emitting are safe from several threads. Callbacks run on the emitting
// thread, outside the signal's lock, so a callback may connect or disconnect. A receiver must
// not be destroyed on one thread while another thread emits to it.

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace Velmoria {

class SignalReceiver;

class SignalBase
{
public:
    SignalBase() = default;
    SignalBase(SignalBase const&) = delete;
    SignalBase& operator=(SignalBase const&) = delete;
    virtual ~SignalBase() = default;

    void setBlocked(bool blocked) { m_blocked.store(blocked); }
    bool isBlocked() const { return m_blocked.load(); }

    virtual void disconnect(SignalReceiver const* receiver) = 0;
    virtual void disconnectAll() = 0;
    virtual bool isConnectedTo(SignalReceiver const* receiver) const = 0;

protected:
    friend class SignalReceiver;
    // Called by a dying receiver: forget its slots without calling back into it.
    virtual void dropReceiver(SignalReceiver const* receiver) = 0;

private:
    std::atomic<bool> m_blocked{false};
};

// Base of objects whose connections must end with them. Copying a receiver copies none of
// its connections.
class SignalReceiver
{
public:
    SignalReceiver() = default;
    SignalReceiver(SignalReceiver const&) {}
    SignalReceiver& operator=(SignalReceiver const&) { return *this; }
    virtual ~SignalReceiver() { disconnectAll(); }

    void addConnection(SignalBase* signal) const
    {
        std::lock_guard lock(m_mutex);
        m_signals.push_back(signal);
    }

    // Removes one record of `signal` (a receiver connected twice is recorded twice).
    void removeConnection(SignalBase* signal) const
    {
        std::lock_guard lock(m_mutex);
        auto it = std::find(m_signals.begin(), m_signals.end(), signal);
        if (it != m_signals.end())
            m_signals.erase(it);
    }

    // Disconnects this receiver from every signal it is connected to.
    void disconnectAll() const
    {
        std::vector<SignalBase*> signals;
        {
            std::lock_guard lock(m_mutex);
            signals.swap(m_signals);
        }
        std::sort(signals.begin(), signals.end());
        signals.erase(std::unique(signals.begin(), signals.end()), signals.end());
        for (SignalBase* signal : signals)
            signal->dropReceiver(this);
    }

    int connectionCount() const
    {
        std::lock_guard lock(m_mutex);
        return static_cast<int>(m_signals.size());
    }

private:
    mutable std::mutex m_mutex;
    mutable std::vector<SignalBase*> m_signals;
};

template <typename... Args>
class SignalImpl : public SignalBase
{
public:
    using Function = std::function<void(Args...)>;
    using ConnectionId = int;

    SignalImpl() = default;
    ~SignalImpl() override { disconnectAll(); }

    // A connection that lasts until disconnect(id), disconnectAll() or the signal's end.
    ConnectionId connect(Function function) { return add(nullptr, std::move(function)); }

    // A connection that also ends when `receiver` is destroyed.
    ConnectionId connect(SignalReceiver const* receiver, Function function)
    {
        ConnectionId id = add(receiver, std::move(function));
        if (receiver)
            receiver->addConnection(this);
        return id;
    }

    void disconnect(ConnectionId id)
    {
        SignalReceiver const* receiver = nullptr;
        {
            std::lock_guard lock(m_mutex);
            auto it =
                std::find_if(m_slots.begin(), m_slots.end(), [id](Slot const& s) { return s.id == id; });
            if (it == m_slots.end())
                return;
            receiver = it->receiver;
            m_slots.erase(it);
        }
        if (receiver)
            receiver->removeConnection(this);
    }

    void disconnect(SignalReceiver const* receiver) override
    {
        int removed = removeSlotsOf(receiver);
        for (int i = 0; i < removed; ++i)
            receiver->removeConnection(this);
    }

    void disconnectAll() override
    {
        std::vector<Slot> slots;
        {
            std::lock_guard lock(m_mutex);
            slots.swap(m_slots);
        }
        for (Slot const& slot : slots)
            if (slot.receiver)
                slot.receiver->removeConnection(this);
    }

    bool isConnectedTo(SignalReceiver const* receiver) const override
    {
        std::lock_guard lock(m_mutex);
        return std::any_of(m_slots.begin(), m_slots.end(),
                           [receiver](Slot const& s) { return s.receiver == receiver; });
    }

    int connectionCount() const
    {
        std::lock_guard lock(m_mutex);
        return static_cast<int>(m_slots.size());
    }

    // Calls every connected function in the order of connection, unless the signal is blocked.
    void emitSignal(Args... args) const
    {
        if (isBlocked())
            return;
        std::vector<std::shared_ptr<Function>> functions;
        {
            std::lock_guard lock(m_mutex);
            functions.reserve(m_slots.size());
            for (Slot const& slot : m_slots)
                functions.push_back(slot.function);
        }
        for (auto const& function : functions)
            (*function)(args...);
    }

    void operator()(Args... args) const { emitSignal(args...); }

protected:
    void dropReceiver(SignalReceiver const* receiver) override { removeSlotsOf(receiver); }

private:
    struct Slot
    {
        ConnectionId id;
        SignalReceiver const* receiver;
        std::shared_ptr<Function> function;
    };

    ConnectionId add(SignalReceiver const* receiver, Function function)
    {
        std::lock_guard lock(m_mutex);
        ConnectionId id = ++m_lastId;
        m_slots.push_back({id, receiver, std::make_shared<Function>(std::move(function))});
        return id;
    }

    int removeSlotsOf(SignalReceiver const* receiver)
    {
        std::lock_guard lock(m_mutex);
        auto before = m_slots.size();
        std::erase_if(m_slots, [receiver](Slot const& s) { return s.receiver == receiver; });
        return static_cast<int>(before - m_slots.size());
    }

    mutable std::mutex m_mutex;
    std::vector<Slot> m_slots;
    ConnectionId m_lastId = 0;
};

template <typename... Args>
using Signal = SignalImpl<Args...>;

// Blocks a signal for its lifetime and restores the earlier state afterwards, so blockers nest.
class SignalBlocker
{
public:
    explicit SignalBlocker(SignalBase& signal)
        : m_signal(signal)
        , m_wasBlocked(signal.isBlocked())
    {
        m_signal.setBlocked(true);
    }
    ~SignalBlocker() { m_signal.setBlocked(m_wasBlocked); }
    SignalBlocker(SignalBlocker const&) = delete;
    SignalBlocker& operator=(SignalBlocker const&) = delete;

private:
    SignalBase& m_signal;
    bool m_wasBlocked;
};

} // namespace Velmoria
