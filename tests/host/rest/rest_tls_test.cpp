// The server's connection cap, and HTTPS with a certificate made at test time.
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/write.hpp>

#include "rest_test_support.h"

using namespace docadmin;
using namespace docadmin::test;
namespace asio = boost::asio;

namespace {

class RestConnections : public TRestServerFixture {};

// A self-signed P-256 certificate for localhost, valid for an hour, and its key, as PEM files.
void WriteSelfSignedCertificate(const std::string& ACertFile, const std::string& AKeyFile) {
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_EC_gen("P-256"), EVP_PKEY_free);
    ASSERT_TRUE(key);
    std::unique_ptr<X509, decltype(&X509_free)> cert(X509_new(), X509_free);
    X509_set_version(cert.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -60);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 3600);
    X509_set_pubkey(cert.get(), key.get());
    X509_NAME* name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0);
    X509_set_issuer_name(cert.get(), name);
    ASSERT_GT(X509_sign(cert.get(), key.get(), EVP_sha256()), 0);
    std::unique_ptr<BIO, decltype(&BIO_free)> c(BIO_new_file(ACertFile.c_str(), "w"), BIO_free);
    std::unique_ptr<BIO, decltype(&BIO_free)> k(BIO_new_file(AKeyFile.c_str(), "w"), BIO_free);
    ASSERT_TRUE(c && k);
    ASSERT_EQ(PEM_write_bio_X509(c.get(), cert.get()), 1);
    ASSERT_EQ(PEM_write_bio_PrivateKey(k.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr),
              1);
}

}  // namespace

TEST_F(RestConnections, BeyondTheCapANewConnectionGets503UntilOneCloses) {
    FOptions.HTTP.MaxConnections = 2;
    StartServer();
    auto first = std::make_unique<TTestClient>(FServer->Port());
    TTestClient second(FServer->Port());
    // Answered requests make sure that both connections were taken in.
    EXPECT_EQ(first->Call("GET", "/health").Status, 200);
    EXPECT_EQ(second.Call("GET", "/health").Status, 200);
    {
        TTestClient third(FServer->Port());
        EXPECT_EQ(third.Read().Status, 503);
    }
    EXPECT_EQ(second.Call("GET", "/health").Status, 200);  // kept connections go on
    first.reset();
    // The closed connection frees its place (the server notices the close a little later).
    int status = 0;
    for (int i = 0; i < 50 && status != 200; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        TTestClient next(FServer->Port());
        status = next.Call("GET", "/health").Status;
    }
    EXPECT_EQ(status, 200);
}

TEST_F(RestConnections, ServesHTTPSWithTheGivenCertificate) {
    const std::string certFile = (FDir / "cert.pem").string();
    FOptions.HTTP.TLSCertFile = certFile;
    FOptions.HTTP.TLSKeyFile = (FDir / "key.pem").string();
    WriteSelfSignedCertificate(FOptions.HTTP.TLSCertFile, FOptions.HTTP.TLSKeyFile);
    StartServer();
    ASSERT_TRUE(FServer->HTTP().Secure());

    asio::io_context io;
    asio::ssl::context ctx(asio::ssl::context::tls_client);
    // Trusting only the made certificate proves that the server presents it.
    ctx.load_verify_file(certFile);
    ctx.set_verify_mode(asio::ssl::verify_peer);
    asio::ssl::stream<asio::ip::tcp::socket> s(io, ctx);
    s.next_layer().connect({asio::ip::address_v4::loopback(), FServer->Port()});
    s.handshake(asio::ssl::stream_base::client);
    asio::write(s, asio::buffer(std::string("GET /health HTTP/1.1\r\nHost: localhost\r\n\r\n")));
    std::string head;
    asio::read_until(s, asio::dynamic_buffer(head), "\r\n\r\n");
    EXPECT_EQ(head.substr(0, 12), "HTTP/1.1 200") << head;

    // Plain HTTP on the TLS port gets no answer.
    TTestClient plain(FServer->Port());
    EXPECT_EQ(plain.Call("GET", "/health").Status, 0);
}
