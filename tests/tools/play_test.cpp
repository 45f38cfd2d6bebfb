// zem-play's reading of why the audio service cannot be reached: the transport's reasons, as the
// library logs them when a track's init fails, each with the socket's path.
#include <gtest/gtest.h>

#include "ConnectFailure.h"

namespace zem {
namespace {

TEST(ConnectFailureTest, EachTransportReasonIsToldApartWithTheSocketsPath) {
    const std::string path = "/run/a dir at x/com.tarnek.zem.parlex";
    const struct {
        std::string text;
        ConnectFailure::Kind kind;
        std::string detail;
        std::string says;
    } cases[] = {
        {"parlex: permission denied on the socket of service 'svc' at " + path,
         ConnectFailure::PermissionDenied, "", "permission denied on the audio service's socket"},
        {"parlex: service 'svc' is not running (nothing listens at " + path + ")",
         ConnectFailure::NotRunning, "", "no audio service is running"},
        {"parlex: service 'svc' at " + path + " refused the connection",
         ConnectFailure::Refused, "", "refused the connection."},
        {"parlex: service 'svc' at " + path + " refused the connection: too many connections",
         ConnectFailure::Refused, "too many connections", "connection: too many connections."},
        {"parlex: service 'svc' at " + path + " did not answer within 5000 ms",
         ConnectFailure::NoAnswer, "5000", "did not answer within 5000 ms"},
    };
    for (const auto& test : cases) {
        const ConnectFailure failure = ConnectFailure::parse(test.text);
        EXPECT_EQ(failure.kind, test.kind) << test.text;
        EXPECT_EQ(failure.path, path) << test.text;
        EXPECT_EQ(failure.detail, test.detail) << test.text;
        EXPECT_NE(failure.explain().find(test.says), std::string::npos) << failure.explain();
        EXPECT_NE(failure.explain().find(path), std::string::npos) << failure.explain();
    }
    const ConnectFailure unknown = ConnectFailure::parse("parlex: socketpair failed: EMFILE");
    EXPECT_EQ(unknown.kind, ConnectFailure::Unknown);
    EXPECT_NE(unknown.explain().find("socketpair failed: EMFILE"), std::string::npos);
}

}  // namespace
}  // namespace zem
