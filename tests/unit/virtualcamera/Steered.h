// The library under test, steered as a test does it whatever the maker.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "virtualcamera/SteeredLibrary.h"

// Each maker's test program says once which it is.
const SteeredLibrary& steered();

// The text that such a function of the library tells.
std::string steeredText(int (*textOut)(char*, int));

std::string callLog();
std::string misuses();

// Takes the misuses out, so that a test which causes them on purpose passes.
std::string takeMisuses();

// Fails the test when there is a line that is wrong.
void configure(const std::string& text);
