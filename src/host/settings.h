// Settings store: the launcher's and dialogs' remembered values, as text and 32-bit values
// under a section name. Two layers are consulted in the same precedence on every read:
// the user profile file first, then the "registry" (the current user's store, then the
// machine-wide one), which wins when it holds the value in a form that fits.
//
// Files (INI style, one [section] per tool area):
//   profile      $XDG_CONFIG_HOME/ornisworks/profile.ini      (~/.config when unset)
//   current user $XDG_CONFIG_HOME/ornisworks/registry.ini
//   machine      the first dir of $XDG_CONFIG_DIRS (/etc/xdg) that has ornisworks/registry.ini
//
// Registry files keep each value's type and size ("X=dword:00000064", "Path=sz:/home/me",
// "W=hex:64,00") under "[Software\Ornis Works\<section>]"; the profile holds plain
// "name=value" lines under "[<section>]". Writes replace the file atomically.
#pragma once
#include <cstddef>
#include <cstdint>

inline constexpr const char* SettingsMainSection = "ORN Video Tools";

// Reads a text value into dest (always zero-terminated): the profile's value (cut to fit) or
// the default, replaced by the current user's registry text, else the machine's, when that
// text fits dest whole. Returns the length stored.
size_t SettingsReadText(const char* section, const char* name, char* dest, size_t destSize,
                        const char* defaultText);
// Reads a 32-bit value: the profile's number, or the default, replaced by the current user's
// registry value when it holds exactly 4 bytes (of any type).
uint32_t SettingsReadInt(const char* section, const char* name, uint32_t defaultValue);
// Writes to the current user's store, and to the profile file too when `alsoProfile`.
bool SettingsWriteText(const char* section, const char* name, const char* text, bool alsoProfile);
bool SettingsWriteInt(const char* section, const char* name, uint32_t value, bool alsoProfile);

// Where a store lives now (the machine file only when one exists); for messages and tests.
enum SettingsStore { SettingsStoreProfile, SettingsStoreUser, SettingsStoreMachine };
size_t SettingsStorePath(SettingsStore store, char* dest, size_t destSize);
