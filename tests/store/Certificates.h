// Certificates: authorities and certificates made by the openssl command, in a temporary folder.
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>

namespace storetest {

class Certificates {
 public:
  explicit Certificates(std::string folder) : folder_(std::move(folder)) {
    std::filesystem::create_directories(folder_);
    authority("ca");
  }

  [[nodiscard]] std::string path(const std::string& file) const { return folder_ + "/" + file; }
  [[nodiscard]] std::string cert(const std::string& name) const { return path(name + ".pem"); }
  [[nodiscard]] std::string key(const std::string& name) const { return path(name + ".key"); }

  void authority(const std::string& name) const {
    run("req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj '/CN=" + name +
        " of a test' -keyout " + name + ".key -out " + name + ".pem");
  }
  /// `names` as in subjectAltName: DNS:localhost,IP:127.0.0.1.
  void issue(const std::string& name, const std::string& names, const std::string& by = "ca",
             const std::string& more = "-days 2") const {
    run("req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj '/CN=" + name + "' -keyout " +
        name + ".key -out " + name + ".csr");
    run("x509 -req -in " + name + ".csr -CA " + by + ".pem -CAkey " + by + ".key -CAcreateserial " + more +
        " -extfile /dev/stdin -out " + name + ".pem <<< 'subjectAltName=" + names + "'");
  }
  /// One whose time is over, signed by ca.
  void issueExpired(const std::string& name, const std::string& names) const {
    run("req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj '/CN=" + name + "' -keyout " +
        name + ".key -out " + name + ".csr");
    shell("mkdir -p " + name + ".d && touch " + name + ".d/index && echo 01 > " + name +
          ".d/serial && printf '" + "[ca]\\ndefault_ca=c\\n[c]\\ndatabase=" + name +
          ".d/index\\nserial=" + name + ".d/serial\\n" + "new_certs_dir=" + name +
          ".d\\ndefault_md=sha256\\npolicy=p\\nx509_extensions=x\\n" +
          "[p]\\ncommonName=supplied\\n[x]\\nsubjectAltName=" + names + "\\n' > " + name + ".cnf");
    run("ca -batch -config " + name + ".cnf -cert ca.pem -keyfile ca.key -in " + name + ".csr -out " + name +
        ".pem -notext -startdate 20200101000000Z -enddate 20200201000000Z");
  }

 private:
  void run(const std::string& arguments) const { shell("openssl " + arguments); }
  void shell(const std::string& command) const {
    const std::string whole =
        "cd '" + folder_ + "' && umask 077 && bash -c \"" + command + "\" > last.log 2>&1";
    if (std::system(whole.c_str()) != 0) throw std::runtime_error("failed: " + command);
  }

  std::string folder_;
};

}  // namespace storetest
