// The default host's view of an HTTP response: which head is final when a transfer shows
// several, and the content type found in a body that names its own boundary.
#include "host/httpresponse.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using camfetch_host::HttpResponse;

void Feed(HttpResponse& r, const std::vector<std::string>& lines, bool follow = true) {
    for (const auto& line : lines)
        r.OnHeaderLine(line + "\r\n", follow);
}

TEST(HttpResponse, DigestRoundTripShowsTheChallengeFirst) {
    HttpResponse r;
    Feed(r, {"HTTP/1.1 401 Unauthorized", "WWW-Authenticate: Digest realm=\"c\", nonce=\"n\"",
             "Content-Type: text/html", ""});
    EXPECT_EQ(r.Status(), 401);
    EXPECT_TRUE(r.HeadEnded());
    EXPECT_FALSE(r.Final());  // a retry may follow
    Feed(r, {"HTTP/1.1 200 OK", "content-type:  multipart/x-mixed-replace;boundary=x  ", ""});
    EXPECT_EQ(r.Status(), 200);
    EXPECT_TRUE(r.Final());
    ASSERT_NE(r.Field("Content-Type"), nullptr);
    EXPECT_EQ(*r.Field("Content-Type"), "multipart/x-mixed-replace;boundary=x");
    EXPECT_EQ(r.Field("www-authenticate"), nullptr);  // nothing left of the 401
}

TEST(HttpResponse, WhichHeadsAreFinal) {
    struct Case {
        std::vector<std::string> lines;
        bool follow;
        bool final;
    };
    for (const Case& c : {Case{{"HTTP/1.1 100 Continue", ""}, true, false},
                          Case{{"HTTP/1.1 302 Found", "Location: /x", ""}, true, false},
                          Case{{"HTTP/1.1 302 Found", "Location: /x", ""}, false, true},
                          Case{{"HTTP/1.1 302 Found", ""}, true, true},
                          Case{{"HTTP/1.0 404 Not Found", ""}, true, true},
                          Case{{"HTTP/1.1 407 Proxy Authentication Required", ""}, true, false},
                          Case{{"HTTP/1.1 200 OK", "Content-Type: x"}, true, false}}) {
        HttpResponse r;
        Feed(r, c.lines, c.follow);
        EXPECT_EQ(r.Final(), c.final) << c.lines[0];
    }
    HttpResponse r;
    Feed(r, {"HTTP/1.1 401 Unauthorized", ""});
    r.OnBody();  // the transfer delivers its body: no retry came
    EXPECT_TRUE(r.Final());
    Feed(r, {"X-Trailer: 1", ""});  // trailers change nothing
    EXPECT_TRUE(r.Final());
    EXPECT_EQ(r.Field("x-trailer"), nullptr);
}

TEST(HttpResponse, HostileHeadsStayBounded) {
    HttpResponse r;
    r.OnHeaderLine("Content-Type: before any status line", true);
    EXPECT_EQ(r.Field("content-type"), nullptr);
    r.OnHeaderLine("HTTP/1.1", true);
    EXPECT_EQ(r.Status(), 0);
    r.OnHeaderLine("HTTP/1.1 2", true);
    EXPECT_EQ(r.Status(), 2);
    for (int i = 0; i < 1000; ++i)
        r.OnHeaderLine("X-" + std::to_string(i) + ": v", true);
    r.OnHeaderLine("Server: last", true);
    EXPECT_EQ(r.Field("server"), nullptr);  // past the field limit
    EXPECT_NE(r.Field("X-0"), nullptr);
    r.OnHeaderLine("no colon here", true);
    r.OnHeaderLine(": no name", true);
    r.OnHeaderLine("", true);
    EXPECT_TRUE(r.HeadEnded());
}

TEST(HttpResponse, ContentTypeSniffedFromTheBody) {
    struct Case {
        std::string head;
        bool found;
        std::string type;
        size_t consumed;
    };
    const std::string block =
        "HTTP/1.0 200 OK\r\nContent-Type: multipart/x-mixed-replace;boundary=zz\r\n\r\n";
    for (const Case& c :
         {Case{"--ffmpeg\r\nContent-type: image/jpeg\r\n\r\n", true,
               "multipart/x-mixed-replace; boundary=ffmpeg", 0},
          Case{"\r\n\n--abc \r\n", true, "multipart/x-mixed-replace; boundary=abc", 0},
          Case{block + "--zz\r\n", true, "multipart/x-mixed-replace;boundary=zz", block.size()},
          Case{"Content-Type: image/jpeg\r\n\r\n--zz\r\n", false, "", 0},
          Case{"\xff\xd8\xff\xe0\x00\x10JFIF\n\n", false, "", 0}, Case{"--abc", false, "", 0},
          Case{"--\r\n", false, "", 0},
          Case{"Content-Type: multipart/mixed;boundary=q\r\nX: y\r\n", false, "", 0},
          Case{std::string(40, '\n') + "--late\n", false, "", 0}, Case{"", false, "", 0}}) {
        std::string type;
        size_t consumed = 99;
        EXPECT_EQ(camfetch_host::SniffMultipartType(c.head, type, consumed), c.found) << c.head;
        if (c.found) {
            EXPECT_EQ(type, c.type);
            EXPECT_EQ(consumed, c.consumed);
        }
    }
}

}  // namespace
