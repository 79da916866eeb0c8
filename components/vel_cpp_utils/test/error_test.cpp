#include "vel/cpp_utils/error.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace Vel::CppUtil {
namespace {

TEST(Error, TextIsCategoryDetailAndPlace) {
    EXPECT_STREQ(InitializationError("detail", "f.cpp", 1).what(), "Initialization Error: detail(f.cpp:1)");
    EXPECT_STREQ(ParsingError("detail", "f.cpp", 22).what(), "Generic parsing Error: detail(f.cpp:22)");
    EXPECT_STREQ(OutOfRangeError("detail", "f.cpp", 333).what(), "Out of Range Error: detail(f.cpp:333)");
    EXPECT_STREQ(InvalidArgumentError("detail", "f.cpp", -1).what(),
                 "Invalid Argument Error: detail(f.cpp:-1)");
    EXPECT_STREQ(NotImplementedError("detail", "f.cpp", 0).what(), "Not Implemented Error: detail(f.cpp:0)");
    EXPECT_STREQ(IOError("detail", "f.cpp", 1).what(), "IOErrorr: detail(f.cpp:1)");
    EXPECT_STREQ(Error("detail", "f.cpp", 1).what(), "detail(f.cpp:1)");
    EXPECT_STREQ(IOError("", "f.cpp", 1).what(), "IOErrorr: (f.cpp:1)");
}

TEST(Error, CopyOutlivesItsOriginalWithTheSameText) {
    auto original =
        std::make_unique<ParsingError>(std::string("a detail longer than any in-place text"), "f.cpp", 1);
    const ParsingError copy = *original;
    original.reset();
    EXPECT_STREQ(copy.what(), "Generic parsing Error: a detail longer than any in-place text(f.cpp:1)");
}

template <typename Caught>
std::string caughtAs() {
    try {
        throw OutOfRangeError("detail", "f.cpp", 1);
    } catch (const Caught& error) {
        return error.what();
    } catch (...) {
        return "not caught";
    }
}

TEST(Error, IsCaughtByItsOwnClassAndItsBasesAlone) {
    const std::string text = "Out of Range Error: detail(f.cpp:1)";
    EXPECT_EQ(caughtAs<OutOfRangeError>(), text);
    EXPECT_EQ(caughtAs<Error>(), text);
    EXPECT_EQ(caughtAs<std::exception>(), text);
    EXPECT_EQ(caughtAs<InitializationError>(), "not caught");
    EXPECT_EQ(caughtAs<std::out_of_range>(), "not caught");
}

}  // namespace
}  // namespace Vel::CppUtil
