#include "embedded/config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace host {
namespace {

TEST(config, aWholeFileIsRead) {
  Config config;
  const char* text = R"(# comment
Listen 127.0.0.1:0
Listen [::1]:80  tls
Certificate c.pem
CertificateKey /k.pem
ClientCA /ca.pem optional

ServerName "a b"   # comment
DocumentRoot /
Threads 7
KeepAliveTimeout 0
ClientNames on
ErrorLog x#y.log     # comment
Init fn="a"
# between
	key="v"
   # indented
<Object name=default>
NameTrans fn=document-root root=/usr/
Service fn=b type="x/*"
</Object>
DirectoryIndex i.html j.jsp)";
  ASSERT_EQ(readConfig(text, "f.conf", &config), "");
  ASSERT_EQ(config.listeners.size(), 2U);
  EXPECT_EQ(config.listeners[1].address, "[::1]:80");
  EXPECT_TRUE(config.listeners[1].tls && !config.listeners[0].tls);
  EXPECT_EQ(config.tls.key + config.tls.clientAuthorities, "/k.pem/ca.pem");
  EXPECT_TRUE(config.tls.certificate.starts_with("/"));
  EXPECT_EQ(config.tls.client, ClientCertificate::optional);
  EXPECT_EQ(config.serverName + config.documentRoot + config.errorLog, "a b/x#y.log");
  EXPECT_EQ(config.limits.threads, 7);
  EXPECT_EQ(config.limits.keepAliveTimeout, 0);
  EXPECT_TRUE(config.clientNames);
  ASSERT_EQ(config.inits.size(), 1U);
  EXPECT_EQ(config.inits[0].where, "f.conf:14");
  EXPECT_EQ(*config.inits[0].find("key"), "v");
  ASSERT_EQ(config.stages.size(), 2U);
  EXPECT_EQ(*config.stages[0].second.find("root"), "/usr");
  EXPECT_EQ(*config.stages[0].second.find("index"), "i.html j.jsp");
  EXPECT_EQ(config.stages[1].first, Stage::service);
  EXPECT_EQ(readConfig("Listen 127.0.0.1:0\r\n", "f", &config), "");
}

struct BadRow {
  const char* text;
  const char* reason;
};

const BadRow kBadRows[] = {
    {"", "f:1: there is no Listen"},
    {"\n  key=v\n", "f:2: there is no line to continue"},
    {"Listen # x\n", "f:1: Listen has no value"},
    {"Listen 8080", "f:1: Listen needs ADDRESS:PORT [tls], not \"8080\""},
    {"Listen a:80", "f:1: Listen needs ADDRESS:PORT [tls], not \"a:80\""},
    {"Listen [::1]:65536", "f:1: Listen needs ADDRESS:PORT [tls], not \"[::1]:65536\""},
    {"Listen 1.2.3.4:8s", "f:1: Listen needs ADDRESS:PORT [tls], not \"1.2.3.4:8s\""},
    {"Listen 1.2.3.4:8 ssl",
     "f:1: Listen needs ADDRESS:PORT [tls], not \"1.2.3.4:8 ssl\""},
    {"Listen 1.2.3.4:8 tls", "f:1: tls needs Certificate and CertificateKey"},
    {"ClientCA a.pem always", "f:1: ClientCA needs FILE [optional|required]"},
    {"User no.such", "f:1: there is no user no.such"},
    {"HeadTimeout 0", "f:1: HeadTimeout needs a number from 1 to 86400"},
    {"listen 127.0.0.1:0\n", "f:1: unknown directive \"listen\""},
    {"Threads 0\n", "f:1: Threads needs a number from 1 to 4096"},
    {"Threads 99999999999\n", "f:1: Threads needs a number from 1 to 4096"},
    {"ClientNames On\n", "f:1: ClientNames is on or off"},
    {"Threads 8x\n", "f:1: Threads needs a number from 1 to 4096"},
    {"Threads 1\nThreads 1\n", "f:2: Threads is given twice"},
    {"DocumentRoot /no/such\n", "f:1: DocumentRoot \"/no/such\" is not a folder"},
    {"DirectoryIndex a/b\n", "f:1: DirectoryIndex takes names without a slash"},
    {"Init key=v\n", "f:1: the directive has no fn"},
    {"Init fn=\"a\n  b=\"c\"\n", "f:1: expected a blank behind the value of \"fn\""},
    {"Service fn=a\n", "f:1: Service must stand in an <Object>"},
    {"<Object name=x>\n", "f:1: the object's name must be \"default\""},
    {"<Object name=default\n", "f:1: expected <Object name=\"default\">"},
    {"</Object>\n", "f:1: there is no <Object> to end"}};

// These stand on the third line, the first of an object.
const BadRow kBadObjects[] = {
    {"", "f:2: the <Object> has no end"},
    {"Init fn=a\n", "f:3: Init can't stand in an <Object>"},
    {"\nThreads 1\n", "f:4: Threads can't stand in an <Object>"},
    {"<Object name=default>\n", "f:3: an <Object> can't stand in another"},
    {"NameTrans fn=document-root\n</Object>", "f:3: document-root needs root"},
    {"NameTrans fn=document_root root=/no\n</Object>",
     "f:3: root \"/no\" is not a folder"}};

TEST(config, whatCannotBeUsedIsRefusedWithFileLineAndReason) {
  Config config;
  for (const BadRow& row : kBadRows) {
    EXPECT_EQ(readConfig(row.text, "f", &(config = {})), row.reason) << row.text;
  }
  for (const BadRow& row : kBadObjects) {
    std::string text =
        std::string("Listen 127.0.0.1:0\n<Object name=default>\n") + row.text;
    EXPECT_EQ(readConfig(text, "f", &(config = {})), row.reason) << row.text;
  }
}

}  // namespace
}  // namespace host
