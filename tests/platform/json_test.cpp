#include "nk/json.h"

#include <gtest/gtest.h>

namespace {

nk::json_ptr parse(const char* text) {
    json_error_t error{};
    nk::json_ptr json(json_loads(text, 0, &error));
    EXPECT_TRUE(json) << text << ": " << error.text;
    return json;
}

TEST(Json, GetRecursive) {
    const auto json = parse(R"({"a": {"b": {"c": 7, "s": "x"}, "arr": [1]}, "n": null})");
    EXPECT_EQ(json_integer_value(nk::json_object_get_recursive(json.get(), {"a", "b", "c"})), 7);
    EXPECT_TRUE(json_is_object(nk::json_object_get_recursive(json.get(), {"a", "b"})));
    EXPECT_EQ(nk::json_object_get_recursive(json.get(), {}), json.get());
    EXPECT_TRUE(json_is_null(nk::json_object_get_recursive(json.get(), {"n"})));

    for (const auto& keys : {
             std::initializer_list<const char*>{"missing"},
             std::initializer_list<const char*>{"a", "missing", "c"},
             std::initializer_list<const char*>{"a", "b", "c", "d"},  // through a number
             std::initializer_list<const char*>{"a", "b", "s", "d"},  // through a string
             std::initializer_list<const char*>{"a", "arr", "0"},     // arrays are not paths
             std::initializer_list<const char*>{"n", "x"},
             std::initializer_list<const char*>{"a", nullptr},
         }) {
        EXPECT_EQ(nk::json_object_get_recursive(json.get(), keys), nullptr);
    }
    EXPECT_EQ(nk::json_object_get_recursive(nullptr, {"a"}), nullptr);
}

TEST(Json, CloudAnswers) {
    struct Case {
        const char* answer;
        int status;
        int data_code;
    };
    for (const Case& c : {
             Case{R"({"result": {"device_id": "x"}})", 0, -1},
             Case{R"({"result": null})", 0, -1},
             Case{R"({"error": {"code": 404, "message": "not found",
                     "data": {"code": 1002, "data": {"err_data": "no such device"}}}})",
                  404, 1002},
             Case{R"({"error": {"code": -32600, "message": "bad request"}})", -32600, -1},
             Case{R"({"result": {}, "error": {"code": 500}})", 500, -1},  // error wins
             Case{R"({"error": {"code": "500"}})", -1, -1},               // code not an integer
             Case{R"({"error": {"code": 1.5}})", -1, -1},
             Case{R"({"error": {"code": 99999999999}})", -1, -1},  // does not fit an int
             Case{R"({"error": {"code": 0}})", -1, -1},  // an error never reads as success
             Case{R"({"error": "boom"})", -1, -1},
             Case{R"({"error": {"data": {"code": "7"}}})", -1, -1},
             Case{R"({"error": {"data": [1]}})", -1, -1},
             Case{R"({"error": {"code": 3, "data": {"code": 7}}})", 3, 7},
             Case{R"({})", -1, -1},
             Case{R"({"other": 1})", -1, -1},
             Case{R"([{"result": 1}])", -1, -1},
         }) {
        SCOPED_TRACE(c.answer);
        const auto answer = parse(c.answer);
        EXPECT_EQ(nk::extract_response_status(answer.get()), c.status);
        EXPECT_EQ(nk::extract_error_data_code(answer.get()), c.data_code);
    }
    EXPECT_EQ(nk::extract_response_status(nullptr), -1);
    EXPECT_EQ(nk::extract_error_data_code(nullptr), -1);
}

}  // namespace
