#include "virtualcamera/Steered.h"

std::string steeredText(int (*textOut)(char*, int))
{
    std::string text(static_cast<std::size_t>(textOut(nullptr, 0)) + 1, '\0');
    textOut(text.data(), static_cast<int>(text.size()));
    text.pop_back();
    return text;
}

std::string callLog()
{
    return steeredText(steered().log);
}

std::string misuses()
{
    return steeredText(steered().misuse);
}

std::string takeMisuses()
{
    std::string text = misuses();
    steered().clearMisuse();
    return text;
}

void configure(const std::string& text)
{
    ASSERT_EQ(steered().configure(text.c_str()), 0) << steeredText(steered().lastError);
}
