// Keys made by the openssl command in a temporary directory, NAME.pem/NAME.key: CAs "ca", "other"; from "ca",
// certificates for 127.0.0.1 ("server"), another name ("wrongname"), already expired ("expired"). Ed25519
// signers alice, bob, mallory: NAME.key, NAME.pub.
#pragma once

#include <cstdlib>
#include <string>
#include <vector>

#include "support/tempdir.h"

struct Pki {
    TempDir dir{"pki"};
    bool ok = false;
    Pki() {
        std::string script = "cd " + dir.path + " && exec >log 2>&1 && set -e\n" + R"(
ca() {
  openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout $1.key -subj /CN=$1 -days 2 \
    -out $1.pem
}
cert() {
  openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout $1.key -subj /CN=$1 -out $1.csr
  echo "subjectAltName=$2" >$1.ext
  openssl x509 -req -in $1.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days $3 -extfile $1.ext -out $1.pem
}
ca ca; ca other
cert expired IP:127.0.0.1 0; cert server IP:127.0.0.1 2; cert wrongname DNS:wrong.example 2
for k in alice bob mallory; do
  openssl genpkey -algorithm ed25519 -out $k.key && openssl pkey -in $k.key -pubout -out $k.pub
done
sleep 1  # "expired" is good until the end of the second it was made in
)";
        ok = std::system(script.c_str()) == 0;
    }
    std::string operator/(const std::string& name) const { return dir / name; }
    // "-T cert,key" arguments for orbserver.
    std::vector<std::string> serve(const std::string& name) const {
        return {"-T", dir / (name + ".pem") + "," + dir / (name + ".key")};
    }
};
