#include <gtest/gtest.h>
#include <orlek/cli.h>
#include <orlek/errors.h>
#include <sstream>

using namespace Orlek::Support;

TEST(cli_test, aRequestHoldsTheCommandLineAsItIs) {
    std::string texts[] = {"./velmora.bin", "MEDIA", "", "A=1", "A=2", "B=x=y", "C="};
    char* argv[] = {texts[0].data(), texts[1].data(), texts[2].data(), nullptr};
    char* envp[] = {texts[3].data(), texts[4].data(), texts[5].data(), texts[6].data(), nullptr};
    const auto request = cli_request::create(3, argv, envp);
    EXPECT_EQ(request.env, (std::map<std::string, std::string>{{"A", "1"}, {"B", "x"}}));
    EXPECT_TRUE(cli_request::create(0, argv + 3, nullptr).args.empty());

    request.assert_min_args(2);
    request.assert_max_args(2);
    request.assert_env("A");
    EXPECT_THROW(request.assert_min_args(3), Orlek::not_found_error);
    EXPECT_THROW(request.assert_max_args(1), Orlek::not_found_error);
    EXPECT_THROW(request.assert_arg(2, ""), Orlek::not_found_error);
    EXPECT_THROW(request.assert_env("C"), Orlek::not_found_error);
}

TEST(cli_test, aResponseRendersTheErrorTextFirst) {
    std::ostringstream both;
    EXPECT_EQ(cli_response::fail_external({"\0out", 4}, "err").render(both, both), 64);
    EXPECT_EQ(both.str(), std::string("err\0out", 7));
}

TEST(cli_test, parametersAreCollectedByName) {
    using lists = std::map<std::string, std::list<std::string>>;
    lists params{{"a", {"0"}}};
    const std::vector<std::string> words{"a = 1", "b=2", "a=3", "flag", "last=1"};
    Cli__DecodeParams(params, words.begin(), words.end() - 1);
    EXPECT_EQ(params, (lists{{"a", {"0", "1", "3"}}, {"b", {"2"}}, {"flag", {""}}}));
}
