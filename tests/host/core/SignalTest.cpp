#include "host/core/Signal.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using namespace Velmoria;

namespace {

struct Receiver : SignalReceiver
{
    std::vector<int> values;
};

TEST(Signal, EmitsToEveryConnectionInOrderUntilDisconnected)
{
    Signal<int, std::string const&> signal;
    std::vector<std::string> calls;
    auto const first =
        signal.connect([&](int v, std::string const& s) { calls.push_back("a" + std::to_string(v) + s); });
    signal.connect([&](int v, std::string const& s) { calls.push_back("b" + std::to_string(v) + s); });
    Signal<int, std::string const&>::ConnectionId self = 0;
    self = signal.connect([&](int, std::string const&) { // may disconnect itself while called
        calls.push_back("c");
        signal.disconnect(self);
    });
    signal.emitSignal(1, "x");
    signal.disconnect(first);
    signal.emitSignal(2, "y");
    EXPECT_EQ(calls, (std::vector<std::string>{"a1x", "b1x", "c", "b2y"}));
    EXPECT_EQ(signal.connectionCount(), 1);
}

TEST(Signal, BlockerSuppressesAndRestoresNestedState)
{
    Signal<> signal;
    int calls = 0;
    signal.connect([&] { ++calls; });
    {
        SignalBlocker outer(signal);
        signal.emitSignal();
        {
            SignalBlocker inner(signal);
        }
        EXPECT_TRUE(signal.isBlocked()) << "an inner blocker must not unblock the outer one";
        signal.emitSignal();
    }
    EXPECT_FALSE(signal.isBlocked());
    signal.emitSignal();
    EXPECT_EQ(calls, 1);
}

TEST(Signal, ConnectionBreaksWhenEitherSideDies)
{
    Signal<int> signal;
    int unrelated = 0;
    signal.connect([&](int v) { unrelated += v; });
    {
        Receiver receiver;
        signal.connect(&receiver, [&receiver](int v) { receiver.values.push_back(v); });
        EXPECT_TRUE(signal.isConnectedTo(&receiver));
        signal.emitSignal(1);
        EXPECT_EQ(receiver.values, (std::vector<int>{1}));
    }
    // Emitting after the receiver's death must not call into it (ASan would see a dangling use).
    signal.emitSignal(2);
    EXPECT_EQ(signal.connectionCount(), 1);
    EXPECT_EQ(unrelated, 3);

    auto receiver = std::make_unique<Receiver>();
    {
        Signal<int> shortLived;
        shortLived.connect(receiver.get(), [](int) {});
        shortLived.connect(receiver.get(), [](int) {});
        EXPECT_EQ(receiver->connectionCount(), 2);
    }
    EXPECT_EQ(receiver->connectionCount(), 0);
    // A copied receiver has no connections of its own.
    signal.connect(receiver.get(), [](int) {});
    Receiver copy(*receiver);
    EXPECT_EQ(copy.connectionCount(), 0);
    EXPECT_FALSE(signal.isConnectedTo(&copy));
    receiver.reset();
    EXPECT_EQ(signal.connectionCount(), 1);
}

TEST(Signal, DisconnectingAReceiverRemovesAllItsSlotsOnly)
{
    Signal<int> first, second;
    Receiver a, b;
    first.connect(&a, [&a](int v) { a.values.push_back(v); });
    first.connect(&a, [&a](int v) { a.values.push_back(-v); });
    first.connect(&b, [&b](int v) { b.values.push_back(v); });
    second.connect(&a, [&a](int v) { a.values.push_back(v); });
    first.disconnect(&a);
    EXPECT_FALSE(first.isConnectedTo(&a));
    EXPECT_EQ(a.connectionCount(), 1);
    second.connect(&b, [&b](int v) { b.values.push_back(v); });
    a.disconnectAll();
    first.emitSignal(1);
    second.emitSignal(2);
    EXPECT_TRUE(a.values.empty());
    EXPECT_EQ(b.values, (std::vector<int>{1, 2}));

    first.disconnectAll();
    EXPECT_EQ(first.connectionCount(), 0);
    EXPECT_EQ(b.connectionCount(), 1);
}

} // namespace
