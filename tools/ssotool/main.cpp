// ssotool: acquires, inspects, validates and renews single-sign-on tokens from the command line,
// on the installed public API of libssoclient only.
//
//   ssotool acquire --sts https://sts.example.test/sts/STSService --ca ca.pem
//       --trust signing.pem --user alice --password-file - --out alice.xml
//   ssotool inspect alice.xml
//   ssotool validate alice.xml --trust signing.pem

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <basalt/Crypto.h>
#include <basalt/Http.h>
#include <basalt/Log.h>
#include <basalt/Ssl.h>
#include <basalt/StringUtil.h>
#include <basalt/XmlSecurity.h>
#include <ssoClient/Description.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/JwtTokenValidator.h>
#include <ssoClient/KerberosNegotiationHandler.h>
#include <ssoClient/SamlTokenFactory.h>
#include <ssoClient/SecurityTokenService.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>

#include "Inspect.h"

namespace {

using Basalt::Ref;
using Basalt::StringUtil::SecretText;

enum ExitCode { kOk = 0, kInvalid = 1, kUsage = 2, kCommunication = 3, kOther = 4 };

constexpr const char* kExitCodes = R"(
Exit codes:
  0  success; for validate, the token is valid
  1  the token is invalid, or the STS refused the request (credentials, token, fault)
  2  usage error
  3  communication failure (connection, TLS, HTTP status, timeout)
  4  any other error)";

// A mistake in the command line that the parser cannot see.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Everything a subcommand may be given.
struct Options {
    std::string file;  // the token, or "-" for standard input
    std::string sts, ca, user, passwordFile, cert, key, spn, out;
    std::vector<std::string> trust, audiences, keys;
    long lifetime = 3600;
    long tolerance = SsoClient::kDefaultClockToleranceSec;
    bool json = false;
    bool jwt = false;
    bool kerberos = false;
    bool renewable = false;
    bool delegable = false;
    int verbosity = 0;
};

std::string ReadFile(const std::string& path) {
    std::ifstream file;
    if (path != "-") {
        file.open(path, std::ios::binary);
    }
    std::istream& in = path == "-" ? std::cin : file;
    std::string text(std::istreambuf_iterator<char>(in), {});
    if (in.bad() || (path != "-" && !file.is_open())) {
        throw UsageError("Cannot read " + path);
    }
    return text;
}

std::string Trimmed(std::string text) {
    const char* blanks = " \t\r\n";
    text.erase(0, text.find_first_not_of(blanks));
    return text.erase(text.find_last_not_of(blanks) + 1);
}

std::string ReadLine(std::istream& in) {
    std::string line;
    line.reserve(1024);  // no reallocation leaves an unwiped copy of a password behind
    std::getline(in, line);
    if (!line.empty() && line.back() == '\r') {
        line.pop_back();
    }
    return line;
}

std::string PromptWithoutEcho(const char* prompt) {
    termios saved{};
    tcgetattr(STDIN_FILENO, &saved);
    termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    std::cerr << prompt << std::flush;
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
    std::string line = ReadLine(std::cin);
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
    std::cerr << '\n';
    return line;
}

// From --password-file (a file, or "-" for standard input), else from a prompt on the terminal.
SecretText ReadPassword(const std::string& source) {
    if (source.empty() && !isatty(STDIN_FILENO)) {
        throw UsageError("--user needs --password-file when standard input is no terminal");
    }
    if (source.empty()) {
        return SecretText(PromptWithoutEcho("Password: "));
    }
    std::ifstream file;
    if (source != "-") {
        file.open(source);
    }
    return SecretText(ReadLine(source == "-" ? std::cin : file));
}

std::vector<Ref<Basalt::Crypto::Certificate>> LoadCertificates(
    const std::vector<std::string>& files) {
    std::vector<Ref<Basalt::Crypto::Certificate>> all;
    for (const std::string& file : files) {
        std::vector<Ref<Basalt::Crypto::Certificate>> some;
        Basalt::Crypto::CreateCertificatesFromPem(ReadFile(file), some);
        all.insert(all.end(), some.begin(), some.end());
    }
    return all;
}

Ref<Basalt::Xml::Security::KeyInfoResolver> TrustResolver(const std::vector<std::string>& files) {
    Ref<Basalt::Xml::Security::KeyInfoResolver> resolver;
    Basalt::Xml::Security::CreateTrustedCertificateResolver(LoadCertificates(files), resolver);
    return resolver;
}

// The host of an http(s) URL, for the default Kerberos service name.
std::string Host(const std::string& url) {
    const size_t from = url.find("://") == std::string::npos ? 0 : url.find("://") + 3;
    const size_t to = url[from] == '[' ? url.find(']', from) + 1 : url.find_first_of(":/", from);
    return url.substr(from, to == std::string::npos ? std::string::npos : to - from);
}

// A token service client as the options configure it; keeps the TLS context it uses alive.
struct Sts {
    explicit Sts(const Options& options) {
        if (options.sts.rfind("https:", 0) == 0) {
            Basalt::Ssl::SSLContextOptions tls;
            tls.trustedCaPem = options.ca.empty() ? "" : ReadFile(options.ca);
            Basalt::Ssl::CreateSSLContext(tls, ssl);
        }
        SsoClient::SecurityTokenServiceConfig config;
        config.url = options.sts;
        config.sslContext = ssl.Get();
        config.keyInfoResolver = TrustResolver(options.trust);
        config.tokenFactory = SsoClient::CreateSamlTokenFactory(config.keyInfoResolver.Get());
        if (!options.cert.empty()) {
            SsoClient::HolderOfKeyConfig identity;
            Basalt::Crypto::CreateCertificateFromPem(ReadFile(options.cert), identity.certificate);
            const SecretText key(ReadFile(options.key));
            Basalt::Crypto::CreatePrivateKeyFromPem(key.Get(), identity.privateKey);
            config.holderOfKey = identity;
        }
        service = SsoClient::CreateSecurityTokenService(config);
    }
    Ref<Basalt::Ssl::SSLContext> ssl;
    std::shared_ptr<SsoClient::SecurityTokenService> service;
};

// Writes the token's XML to the file (readable by its owner only: it is a credential) or stdout.
int WriteToken(const std::shared_ptr<const SsoClient::SamlToken>& token, const std::string& out) {
    if (!token) {
        throw SsoClient::SsoException("The STS answered without a token");
    }
    const std::string text = token->GetXml() + "\n";
    if (out.empty()) {
        std::cout << text << std::flush;
        return kOk;
    }
    const int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const bool written =
        fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (fd < 0 || close(fd) != 0 || !written) {
        throw Basalt::Exception("Cannot write " + out);
    }
    return kOk;
}

int Acquire(const Options& options) {
    if (options.user.empty() && options.cert.empty() && !options.kerberos) {
        throw UsageError("acquire needs --user, --cert with --key, or --kerberos");
    }
    const Sts sts(options);
    SsoClient::TokenSpec spec;
    spec.tokenLifetimeSec = options.lifetime;
    spec.renewable = options.renewable;
    spec.delegable = options.delegable;
    if (!options.user.empty()) {
        const SecretText password = ReadPassword(options.passwordFile);
        return WriteToken(sts.service->AcquireToken(options.user, password.Get(), spec),
                          options.out);
    }
    if (options.kerberos) {
        const auto handler = SsoClient::CreateKerberosNegotiationHandler(
            options.spn.empty() ? "HTTP@" + Host(options.sts) : options.spn);
        return WriteToken(sts.service->AcquireTokenByGSS(spec, *handler), options.out);
    }
    return WriteToken(sts.service->AcquireTokenByCertificate(spec), options.out);
}

int Renew(const Options& options) {
    const Sts sts(options);
    const auto resolver = TrustResolver(options.trust);
    const auto token = SsoClient::CreateSamlToken(Trimmed(ReadFile(options.file)), resolver.Get(),
                                                  options.tolerance);
    return WriteToken(sts.service->RenewToken(*token, options.lifetime), options.out);
}

bool IsTokenFault(const Basalt::Exception& e) {
    return dynamic_cast<const SsoClient::InvalidTokenException*>(&e) ||
           dynamic_cast<const Basalt::Xml::XMLParseException*>(&e) ||
           dynamic_cast<const Basalt::Xml::Security::XmlSecurityException*>(&e) ||
           dynamic_cast<const Basalt::Xml::Security::SignatureSyntaxException*>(&e);
}

int Validate(const Options& options) {
    if (options.jwt ? options.audiences.empty() || options.keys.empty() : options.trust.empty()) {
        throw UsageError(options.jwt ? "validate --jwt needs --audience and --key"
                                     : "validate needs --trust (or --jwt)");
    }
    const std::string text = Trimmed(ReadFile(options.file));
    Ref<Basalt::Xml::Security::KeyInfoResolver> resolver;
    Ref<SsoClient::TokenValidator> validator;
    if (options.jwt) {
        std::list<std::shared_ptr<const std::string>> keys;
        for (const std::string& file : options.keys) {
            keys.push_back(std::make_shared<const std::string>(ReadFile(file)));
        }
        SsoClient::CreateJwtTokenValidator(options.audiences, keys, options.tolerance, validator);
    } else {
        resolver = TrustResolver(options.trust);
    }
    try {
        const auto token =
            options.jwt ? validator->Validate(text, "")
                        : SsoClient::CreateSamlToken(text, resolver.Get(), options.tolerance);
        std::cout << "valid: " << SsoClient::CreateSamlTokenDescription(*token) << '\n';
        return kOk;
    } catch (const Basalt::Exception& e) {
        if (!IsTokenFault(e)) {
            throw;
        }
        std::cout << "invalid: " << e.what() << '\n';
        return kInvalid;
    }
}

int ExitCodeOf(const Basalt::Exception& e) {
    if (dynamic_cast<const SsoClient::CommunicationException*>(&e) ||
        dynamic_cast<const Basalt::Http::TransferException*>(&e)) {
        return kCommunication;
    }
    // Every other failure of the exchange is a refusal: a fault, or an answer we cannot accept.
    const bool refused = dynamic_cast<const SsoClient::SsoException*>(&e) != nullptr;
    return refused || IsTokenFault(e) ? kInvalid : kOther;
}

// Accepts "-" (standard input) or an existing file.
const CLI::Validator kFileOrStdin(
    [](std::string& path) { return path == "-" ? std::string() : CLI::ExistingFile(path); },
    "FILE|-");

void AddStsOptions(CLI::App& command, Options& options) {
    command.add_option("--sts", options.sts, "URL of the STS")->required();
    command
        .add_option("--ca", options.ca,
                    "CA certificates (PEM) trusted for the STS's TLS; "
                    "default: the system's")
        ->check(CLI::ExistingFile);
    command
        .add_option("--trust", options.trust,
                    "a token-signing certificate of the STS (PEM; repeatable)")
        ->required()
        ->allow_extra_args(false)
        ->check(CLI::ExistingFile);
    command.add_option("--lifetime", options.lifetime, "token lifetime in seconds (default 3600)")
        ->check(CLI::Range(1L, static_cast<long>(SsoClient::kMaxTokenLifetimeSec)));
    command.add_option("--out", options.out, "write the token to this file (mode 0600)");
}

void AddToleranceOption(CLI::App& command, Options& options) {
    command.add_option("--tolerance", options.tolerance, "clock tolerance in seconds (600)")
        ->check(CLI::NonNegativeNumber);
}

int Run(int argc, char** argv) {
    CLI::App app("Acquires, inspects, validates and renews single-sign-on tokens.", "ssotool");
    app.require_subcommand(1);
    app.footer(kExitCodes);
    Options options;
    app.add_flag("-v,--verbose", options.verbosity, "log more of the libraries' work (repeatable)");

    CLI::App* acquire = app.add_subcommand("acquire", "Acquire a token from an STS");
    AddStsOptions(*acquire, options);
    auto* user = acquire->add_option("--user", options.user, "log on with this user name");
    acquire
        ->add_option("--password-file", options.passwordFile,
                     "the password's file, or - for standard input; default: a prompt")
        ->check(kFileOrStdin)
        ->needs(user);
    auto* cert = acquire->add_option("--cert", options.cert, "log on with this certificate (PEM)")
                     ->check(CLI::ExistingFile);
    auto* key = acquire->add_option("--key", options.key, "the certificate's private key (PEM)")
                    ->check(CLI::ExistingFile);
    auto* kerberos = acquire
                         ->add_option("--kerberos", options.spn,
                                      "log on with Kerberos to this service principal "
                                      "(default HTTP@<STS host>)")
                         ->expected(0, 1);
    acquire->add_flag("--renewable", options.renewable, "ask for a renewable token");
    acquire->add_flag("--delegable", options.delegable, "ask for a delegable token");
    cert->needs(key)->excludes(user)->excludes(kerberos);
    key->needs(cert);
    user->excludes(kerberos);

    CLI::App* inspect = app.add_subcommand("inspect", "Show what a token says, unverified");
    inspect->add_option("file", options.file, "the token (SAML or JWT), or -")
        ->required()
        ->check(kFileOrStdin);
    inspect->add_flag("--json", options.json, "machine-readable output");

    CLI::App* validate = app.add_subcommand("validate", "Check a token's signature and validity");
    validate->add_option("file", options.file, "the token, or -")->required()->check(kFileOrStdin);
    auto* trust =
        validate
            ->add_option("--trust", options.trust, "SAML: a signing certificate (PEM; repeatable)")
            ->allow_extra_args(false)
            ->check(CLI::ExistingFile);
    auto* jwt = validate->add_flag("--jwt", options.jwt, "the token is a JWT")->excludes(trust);
    validate->add_option("--audience", options.audiences, "JWT: an accepted audience (repeatable)")
        ->allow_extra_args(false)
        ->needs(jwt);
    validate
        ->add_option("--key", options.keys, "JWT: a signing key or certificate (PEM; repeatable)")
        ->allow_extra_args(false)
        ->check(CLI::ExistingFile)
        ->needs(jwt);
    AddToleranceOption(*validate, options);

    CLI::App* renew = app.add_subcommand("renew", "Renew a holder-of-key token");
    renew->add_option("file", options.file, "the token, or -")->required()->check(kFileOrStdin);
    AddStsOptions(*renew, options);
    renew->add_option("--cert", options.cert, "the token's certificate (PEM)")
        ->required()
        ->check(CLI::ExistingFile);
    renew->add_option("--key", options.key, "its private key (PEM)")
        ->required()
        ->check(CLI::ExistingFile);
    AddToleranceOption(*renew, options);

    try {
        app.parse(argc, argv);
        options.kerberos = kerberos->count() > 0;
        for (const char* logger : {"SsoClient", "Basalt"}) {
            Basalt::Service::SetLoggerLevel(
                logger, Basalt::Service::Logger::LL_Warning + std::min(options.verbosity, 3));
        }
        if (acquire->parsed()) {
            return Acquire(options);
        }
        if (inspect->parsed()) {
            std::cout << Ssotool::Inspect(Trimmed(ReadFile(options.file)), options.json);
            return kOk;
        }
        return validate->parsed() ? Validate(options) : Renew(options);
    } catch (const CLI::Success& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return kUsage;
    } catch (const UsageError& e) {
        std::cerr << "ssotool: " << e.what() << "\nRun with --help for more information.\n";
        return kUsage;
    } catch (const Basalt::Exception& e) {
        std::cerr << "ssotool: " << e.what() << '\n';
        return ExitCodeOf(e);
    } catch (const std::exception& e) {
        std::cerr << "ssotool: " << e.what() << '\n';
        return kOther;
    }
}

}  // namespace

int main(int argc, char** argv) {
    return Run(argc, argv);
}
