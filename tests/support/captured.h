/* What some work writes, as a text. */
#ifndef TESTS_SUPPORT_CAPTURED_H
#define TESTS_SUPPORT_CAPTURED_H

#include <gtest/gtest.h>
#include <stdio.h>
#include <string>

#include "process/owned.h"

/** On standard output. */
template <class Work>
std::string told(Work work) {
    testing::internal::CaptureStdout();
    work();
    return testing::internal::GetCapturedStdout();
}

/** To the stream that it is given. */
template <class Print>
std::string printed(Print print) {
    char *text = nullptr;
    size_t size = 0;
    FILE *const stream = open_memstream(&text, &size);
    print(stream);
    fclose(stream);
    return OwnedBlock<char>(text).get();
}

#endif
