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

} // namespace

TEST(Signal, EmitsToEveryConnectionInOrder)
{
    Signal<int, std::string const&> signal;
    std::vector<std::string> calls;
    signal.connect([&](int v, std::string const& s) { calls.push_back("a" + std::to_string(v) + s); });
    signal.connect([&](int v, std::string const& s) { calls.push_back("b" + std::to_string(v) + s); });
    signal.emitSignal(1, "x");
    EXPECT_EQ(calls, (std::vector<std::string>{"a1x", "b1x"}));
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
            signal.emitSignal();
        }
        EXPECT_TRUE(signal.isBlocked()) << "an inner blocker must not unblock the outer one";
        signal.emitSignal();
    }
    EXPECT_FALSE(signal.isBlocked());
    signal.emitSignal();
    EXPECT_EQ(calls, 1);
}

TEST(Signal, DisconnectById)
{
    Signal<int> signal;
    int sum = 0;
    auto first = signal.connect([&](int v) { sum += v; });
    signal.connect([&](int v) { sum += 10 * v; });
    signal.disconnect(first);
    signal.emitSignal(2);
    EXPECT_EQ(sum, 20);
    EXPECT_EQ(signal.connectionCount(), 1);
}

TEST(Signal, ConnectionBreaksWhenReceiverDies)
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
}

TEST(Signal, ReceiverOutlivingSignalForgetsIt)
{
    Receiver receiver;
    {
        Signal<int> signal;
        signal.connect(&receiver, [](int) {});
        signal.connect(&receiver, [](int) {});
        EXPECT_EQ(receiver.connectionCount(), 2);
    }
    EXPECT_EQ(receiver.connectionCount(), 0);
}

TEST(Signal, DisconnectReceiverRemovesAllItsSlotsOnly)
{
    Signal<int> signal;
    Receiver a, b;
    signal.connect(&a, [&a](int v) { a.values.push_back(v); });
    signal.connect(&a, [&a](int v) { a.values.push_back(-v); });
    signal.connect(&b, [&b](int v) { b.values.push_back(v); });
    signal.disconnect(&a);
    signal.emitSignal(5);
    EXPECT_TRUE(a.values.empty());
    EXPECT_EQ(b.values, (std::vector<int>{5}));
    EXPECT_FALSE(signal.isConnectedTo(&a));
    EXPECT_EQ(a.connectionCount(), 0);
}

TEST(Signal, ReceiverDisconnectAllLeavesOtherReceivers)
{
    Signal<int> first, second;
    Receiver a, b;
    first.connect(&a, [&a](int v) { a.values.push_back(v); });
    second.connect(&a, [&a](int v) { a.values.push_back(v); });
    second.connect(&b, [&b](int v) { b.values.push_back(v); });
    a.disconnectAll();
    first.emitSignal(1);
    second.emitSignal(2);
    EXPECT_TRUE(a.values.empty());
    EXPECT_EQ(b.values, (std::vector<int>{2}));
}

TEST(Signal, CopiedReceiverHasNoConnections)
{
    Signal<int> signal;
    auto original = std::make_unique<Receiver>();
    signal.connect(original.get(), [](int) {});
    Receiver copy(*original);
    EXPECT_EQ(copy.connectionCount(), 0);
    EXPECT_FALSE(signal.isConnectedTo(&copy));
    original.reset();
    EXPECT_EQ(signal.connectionCount(), 0);
}

TEST(Signal, SlotMayDisconnectItselfDuringEmission)
{
    Signal<> signal;
    int calls = 0;
    Signal<>::ConnectionId id = 0;
    id = signal.connect([&] {
        ++calls;
        signal.disconnect(id);
    });
    signal.emitSignal();
    signal.emitSignal();
    EXPECT_EQ(calls, 1);
}

TEST(Signal, DisconnectAllEmptiesSignalAndReceivers)
{
    Signal<int> signal;
    Receiver a;
    signal.connect(&a, [](int) {});
    signal.connect([](int) {});
    signal.disconnectAll();
    EXPECT_EQ(signal.connectionCount(), 0);
    EXPECT_EQ(a.connectionCount(), 0);
}
