// The fuzz targets' shell-line oracle: the injected lines of the profile store's old faults
// fail it, the daemon's ordinary lines pass.
#include "fuzz_os.h"

#include <gtest/gtest.h>
#include <string>

namespace {

TEST(ShellLineOracle, InjectedLinesFailAndOrdinaryLinesPass) {
    const struct {
        std::string line;
        std::string problem;
    } cases[] = {
        {"sed -i 's/^AuthMode=.*/AuthMode=x';touch PWNED;';OPEN/g' /p", "unquoted ';'"},
        {"sed -i 's/^AuthMode=.*/AuthMode=|touch PWNED/e#;OPEN/g' /p",
         "sed flag or command after the s command: 'e'"},
        {R"(sed -i "s/^WPAPSK1=.*$/WPAPSK1=\;touch\ PWNED\;\\\/e#/" /p)",
         "sed flag or command after the s command: 'e'"},
        {"sed -i 's/^A=.*$/A=x/w /etc/passwd' /p", "sed flag or command after the s command: 'w'"},
        {"sed -i 's/^A=.*$/A=x\n1e touch PWNED/' /p", "line feed in the sed script"},
        {"sed -i 's/^A=.*$/A=x/' /p /etc/shadow", "sed line is not sed -i SCRIPT FILE"},
        {"sed -i 's/^A=.*$/A=x' /p", "unterminated s command"},
        {"sed -i \"s/^A1=.*$/A1=$(touch x)/\" /p", "expansion in double quotes"},
        {"sed -i \"s/^A1=.*$/A1=`touch x`/\" /p", "expansion in double quotes"},
        {"sed -i 's/^A=.*$/A=x/ /p", "unterminated single quote"},
        {"iwpriv rai3 set WPAPSK=a\ntouch PWNED", "unquoted '\\n'"},
        {"iwpriv rai3 set SSID=a b", "iwpriv line of 5 words"},
        {"iwpriv rai3 set SSID=a|touch PWNED", "unquoted '|'"},
        {"brctl addif br0 rai3 > /tmp/x", "unquoted '>'"},
        {"", "empty line"},
        // Lines as the daemon writes them.
        {"sed -i 's/^HideSSID=.*/HideSSID=0;0;0;1/g' /p", ""},
        {"sed -i 's/^SSID3=.*$/SSID3=x'\\'';touch PWNED;'\\''/' /p", ""},
        {R"(sed -i "s/^WPAPSK2=.*$/WPAPSK2=p\.a\*s\[s\]\^w\$o\{r\}d\+\?\|\(\)\&\;\'\"\<\>\/\`\=\ end/" /p)",
         ""},
        {R"(iwpriv rai1 set WPAPSK=p\.a\*\[\]\^\$\{\}\+\?\|\(\)\&\;\'\"\<\>\/\`\=\ end)", ""},
        {"brctl addif br0 rai3 > /dev/null", ""},
        {"iwpriv rai3 set DisConnectSta=00:11:22:33:44:55", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.problem, shellLineProblem(c.line.c_str())) << c.line;
    }
}

} // namespace
