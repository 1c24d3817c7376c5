// Commands that read and write the camera's properties.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>

#include "EdSdk.h"
#include "canon/Command.h"

namespace canon {

// What the two reads of a property share: kPropReportedSet stands for all properties that are
// reported, and a busy camera is asked again.
class PropertyReadCommand : public Command
{
public:
    bool execute() override;

protected:
    // `reportedSet` is what kPropReportedSet stands for, in the order of reading; the list has
    // static lifetime. `isGivenUp`: after another error than busy it is not asked again.
    PropertyReadCommand(CameraModel& model, EdsPropertyID property,
                        std::initializer_list<EdsPropertyID> reportedSet, bool isGivenUp)
        : Command(model), m_property(property), m_reportedSet(reportedSet), m_isGivenUp(isGivenUp)
    {}

private:
    virtual EdsError readOne(EdsPropertyID property) = 0;
    EdsError read();

    EdsPropertyID m_property;
    std::initializer_list<EdsPropertyID> m_reportedSet;
    bool m_isGivenUp;
};

// Reads a property into the model and announces "PropertyChanged". A camera that answers an error
// is asked again for ever, unless the property is one of the two that some bodies do not have.
class GetPropertyCommand : public PropertyReadCommand
{
public:
    GetPropertyCommand(CameraModel& model, EdsPropertyID property);

private:
    EdsError readOne(EdsPropertyID property) override;
};

// Reads a property's allowed values into the model and announces "PropertyDescChanged". Given up
// after an error.
class GetPropertyDescCommand : public PropertyReadCommand
{
public:
    GetPropertyDescCommand(CameraModel& model, EdsPropertyID property);

private:
    EdsError readOne(EdsPropertyID property) override;
};

// Writes one value, a 32-bit number or a point. Only a busy camera is asked again.
template <typename Value>
class SetPropertyCommand : public Command
{
public:
    SetPropertyCommand(CameraModel& model, EdsPropertyID property, const Value& value)
        : Command(model), m_property(property), m_value(value)
    {}
    bool execute() override;
    std::optional<EdsPropertyID> settingOf() const override { return m_property; }

private:
    EdsPropertyID m_property;
    Value m_value;
};

extern template class SetPropertyCommand<std::uint32_t>;
extern template class SetPropertyCommand<EdsPoint>;

// Tells the camera how much room the host has. Never tried again.
class SetCapacityCommand : public Command
{
public:
    SetCapacityCommand(CameraModel& model, const EdsCapacity& capacity)
        : Command(model), m_capacity(capacity)
    {}
    bool execute() override;

private:
    EdsCapacity m_capacity;
};

}  // namespace canon
