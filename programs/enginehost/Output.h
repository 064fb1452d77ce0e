#pragma once

/// \file
/// What the listings of the host have in common, and the end of what a command prints.

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <span>

enum class ListingForm { forPeople, json };

/// The form that the arguments of a listing ask for: "--json", or none for people. Nothing,
/// after one line that says so, for other arguments.
/// \param command the listing's name
std::optional<ListingForm> listingForm(const char* command, std::span<char* const> arguments);

/// Prints a document on standard output. Texts in it may be any bytes: those that are not UTF-8
/// are replaced.
void printDocument(const nlohmann::ordered_json& document);

/// Writes out what standard output still holds.
/// \return 0; statusHostFailed, after one line that says so, when not everything that was
///         printed could be written.
int finishOutput();
