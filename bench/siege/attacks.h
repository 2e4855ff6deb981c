// The attackers. Each is a function that a process of its own runs until it is killed.
#pragma once

#include <sys/types.h>

#include <random>
#include <string>

struct Target {
  pid_t daemon;
  int port;
  std::string event_socket;
  double seconds;  // of the attack
};

using Attack = void (*)(const Target& target, std::mt19937& random);

// Network clients, all from an address of their own.
void reconnect_one(const Target& target, std::mt19937& random);    // comes again every 7 s and never reads
void reconnect_fifty(const Target& target, std::mt19937& random);  // fifty of these
void stall_for_ever(const Target& target, std::mt19937& random);   // twenty-five that stay and never read
void read_slowly(const Target& target, std::mt19937& random);      // twenty that read a tenth of what comes
void stay_silent(const Target& target, std::mt19937& random);      // a thousand that never say anything
void subscribe_much(const Target& target, std::mt19937& random);   // 900 with 65 KB of names; a poster of 100 names

// Posters.
void flood_eight(const Target& target, std::mt19937& random);     // events whose handler takes 0.2 ms
void flood_many(const Target& target, std::mt19937& random);      // 255 of them, with a trivial handler
void trickle(const Target& target, std::mt19937& random);         // 256 that each end a line every 4 s
void hold_the_loop(const Target& target, std::mt19937& random);   // an event whose handler takes up to 3 s
void start_a_circle(const Target& target, std::mt19937& random);  // an event whose handler posts it again

// Others.
void send_rubbish(const Target& target, std::mt19937& random);      // to both sockets
void remove_socket(const Target& target, std::mt19937& random);     // the event socket's file
void reload_and_flood(const Target& target, std::mt19937& random);  // SIGHUPs, and eight flooding posters

// The handlers of what the attackers post.
extern const char kAttackScript[];
