// Named requests, from the tether object and the library's event handlers to the controller.
#pragma once

#include <string>
#include <utility>

namespace canon {

// One request.
class ActionEvent
{
public:
    // Takes `actionCommand` over. `argument` points to the action's value, or is the value itself
    // where the action says so; it is read during the call only.
    explicit ActionEvent(std::string actionCommand, void* argument = nullptr)
        : m_actionCommand(std::move(actionCommand)), m_argument(argument)
    {}
    ActionEvent(const ActionEvent&) = delete;
    ActionEvent& operator=(const ActionEvent&) = delete;
    virtual ~ActionEvent() = default;

    const std::string& actionCommand() const { return m_actionCommand; }
    void* argument() const { return m_argument; }

private:
    std::string m_actionCommand;
    void* m_argument;
};

// Somebody who carries out actions; any thread may call.
class ActionListener
{
public:
    ActionListener() = default;
    ActionListener(const ActionListener&) = delete;
    ActionListener& operator=(const ActionListener&) = delete;
    virtual void actionPerformed(const ActionEvent& event) = 0;
    virtual ~ActionListener() = default;
};

}  // namespace canon
