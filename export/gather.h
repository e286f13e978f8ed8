/* SPDX-License-Identifier: MIT */
/* gather.h - the incidents that are asked for, all together. */
#pragma once

#include "chain.h"
#include "export.h"

/* Gathers the incidents that the request asks for, in order of time; those of standard input once each. What they are not
 * complete for becomes a note of the chain and a line of JSON in `*other_lines`. Returns the exit status. */
int gather(const zk_trace_t& trace, const export_request_t& request, chain_t* chain, std::string* other_lines);

/* Gives out the text that `make` makes of them. Returns the exit status. */
int give_text(const zk_trace_t& trace, const export_request_t& request, std::string (*make)(const chain_t&));

/* Gives the whole digraph. */
std::string make_dot(const chain_t& chain);
