// Argument parsing and the four commands of `ostrel-codesign` (docs/code-signing.md).

#include "codesign.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>

#include "ostrel/code_signature.h"

namespace ostrel::codesign {

namespace {

void keygen(const std::string &path, const Context &c) {
    SigningKey key = SigningKey::generate();
    if (int error = key.save(path, *c.files)) {
        throw CodeSigningError(error == EEXIST
                                   ? path + " exists already; keygen never replaces a key"
                                   : "cannot write " + path + ": " + platform::errorText(error));
    }
    *c.out << key.team() << "\n";
}

void sign(const std::string &path, const std::string &identifier,
          const std::optional<std::string> &keyPath, const Context &c) {
    std::optional<SigningKey> key;
    if (keyPath) {
        key.emplace(SigningKey::load(*keyPath, *c.files));
    }
    // The new file is renamed over the path: over a link that would replace the link.
    if (c.files->readLink(path).error == 0) {
        throw CodeSigningError(path + " is a symbolic link; sign the file it names");
    }
    platform::OpenedFile opened = c.files->open(path);
    if (opened.error != 0) {
        throw CodeSigningError("cannot open " + path + ": " + platform::errorText(opened.error));
    }
    const platform::FileStatus status = opened.file->status();
    if (!status.regular()) {
        throw CodeSigningError(path + " is not a regular file");
    }
    if (status.size > maxSignedSize) {
        throw CodeSigningError(path + " is larger than 256 MiB, too large to sign");
    }
    std::string bytes(status.size, '\0');
    if (int error = opened.file->readAt(0, bytes)) {
        throw CodeSigningError("cannot read " + path + ": " + platform::errorText(error));
    }
    // The old block goes, valid or not, so that signing a signed file again (as every
    // incremental build does) gives the same file as signing it once.
    bytes.resize(verifySignature(*platform::memoryFile(bytes, status)).contentSize);
    bytes += signatureBlock(bytes, identifier, key ? &*key : nullptr);
    if (int error = c.files->replace(path, bytes, status)) {
        throw CodeSigningError("cannot write " + path + ": " + platform::errorText(error));
    }
    *c.out << (key ? fmt::format("{}: signed as {} by team {}\n", path, identifier, key->team())
                   : fmt::format("{}: signed ad hoc as {}\n", path, identifier));
}

int verify(const std::string &path, const CodeRequirement &requirement, const Context &c) {
    SignatureInfo info = verifyFile(path, *c.files);
    if (std::optional<std::string> unmet = requirement.unmetBy(info)) {
        *c.err << path << ": " << *unmet << "\n";
        return 1;
    }
    std::string text = requirement.text();
    *c.out << path << ": valid" << (text.empty() ? "" : ", satisfies " + text) << "\n";
    return 0;
}

void show(const std::string &path, bool json, const Context &c) {
    SignatureInfo info = verifyFile(path, *c.files);
    if (info.status == SignatureStatus::unreadable) {
        throw CodeSigningError(path + ": " + info.problem);
    }
    bool hasBlock = !info.identifier.empty();
    std::string team = info.team.value_or("ad hoc");
    std::string hash = fmt::format("{:02x}", fmt::join(info.hash, ""));
    if (json) {
        using nlohmann::json;
        json j = {{"file", path},
                  {"identifier", hasBlock ? json(info.identifier) : json()},
                  {"team", info.team ? json(*info.team) : json()},
                  {"adhoc", info.adhoc()},
                  {"hash", hasBlock ? json(hash) : json()},
                  {"valid", info.valid()},
                  {"problem", info.valid() ? json() : json(info.problem)}};
        // File names need not be UTF-8.
        *c.out << j.dump(2, ' ', false, json::error_handler_t::replace) << "\n";
        return;
    }
    *c.out << "file        " << path << "\n";
    if (hasBlock) {
        *c.out << "identifier  " << info.identifier << "\nteam        " << team << "\nhash        "
               << hash << "\n";
    }
    *c.out << "signature   " << (info.valid() ? "valid" : info.problem) << "\n";
}

}  // namespace

int run(int argc, const char *const *argv, const Context &context) {
    CLI::App app{"ostrel-codesign: signs, verifies and shows signatures on Ostrel's programs",
                 "ostrel-codesign"};
    app.require_subcommand(1);

    std::string keyOut;
    CLI::App *keygenCommand =
        app.add_subcommand("keygen", "Make a new signing key and print its team identifier");
    keygenCommand->add_option("--out", keyOut, "Where to write the key (a new file, mode 0600)")
        ->required();

    std::string file, identifier, keyPath, team;
    std::vector<std::string> identifiers;
    bool adhoc = false, json = false;
    CLI::App *signCommand =
        app.add_subcommand("sign", "Sign a file, replacing the signature it carries");
    CLI::Option *keyOption = signCommand->add_option("--key", keyPath, "Sign with this key file");
    signCommand->add_flag("--adhoc", adhoc, "Sign without a key (no team)")->excludes(keyOption);
    signCommand
        ->add_option("--identifier", identifier, "The signing identifier, e.g. dev.ostrel.cli")
        ->required();

    CLI::App *verifyCommand = app.add_subcommand(
        "verify", "Exit 0 when the file's signature is valid and meets the conditions given");
    verifyCommand->add_option("--identifier", identifiers, "Accept this identifier (repeatable)");
    CLI::Option *teamOption =
        verifyCommand->add_option("--team", team, "Require a signature by this team");

    CLI::App *showCommand = app.add_subcommand("show", "Show a file's signature");
    showCommand->add_flag("--json", json, "Print JSON");
    for (CLI::App *command : {signCommand, verifyCommand, showCommand}) {
        command->add_option("FILE", file, "The file")->required();
    }

    const Context &c = context;
    try {
        app.parse(argc, argv);
        if (signCommand->parsed() && !adhoc && keyPath.empty()) {
            throw CLI::ValidationError("sign", "needs --key KEY or --adhoc");
        }
    } catch (const CLI::CallForHelp &) {
        *c.out << app.help();
        return 0;
    } catch (const CLI::ParseError &e) {
        *c.err << "ostrel-codesign: " << e.what() << "\nRun 'ostrel-codesign --help' for usage.\n";
        return 2;
    }

    try {
        if (keygenCommand->parsed()) {
            keygen(keyOut, c);
        } else if (signCommand->parsed()) {
            sign(file, identifier, adhoc ? std::nullopt : std::optional(keyPath), c);
        } else if (verifyCommand->parsed()) {
            std::optional<std::string> required;
            if (teamOption->count() > 0) {
                required = team;
            }
            return verify(file, {identifiers, required, std::nullopt}, c);
        } else {
            show(file, json, c);
        }
    } catch (const std::exception &e) {
        *c.err << "ostrel-codesign: " << e.what() << "\n";
        return 1;
    }
    return 0;
}

}  // namespace ostrel::codesign
