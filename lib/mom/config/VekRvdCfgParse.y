/*
 * The grammar of the daemon configuration file.
 *
 * A file is a sequence of blocks. Each block becomes a finding at its final ";", and so does each
 * error; `CVekRvdCfgParser` applies them after the parse. An error drops the block that contains it:
 * the stack is popped to the start, the only state that shifts the error token, and the input up to
 * the next "rendezvous" is skipped. So a parse fails only when the stack is exhausted, which this
 * left-recursive grammar never does.
 *
 * Codes of 0 and below are the end of the input. The scanner returns a byte of value 128 or more as
 * its signed value, so such a byte outside a string ends the parse.
 */
%require "3.8"
%define api.prefix {VekRvdCfg}
%define parse.trace
%parse-param {kvx::config::Findings* findings}

%code requires {
#include "mom/config/VekRvdCfgScan.h"

class CVekVarBind;
class CVekVBList;
}

%code {
#include <cstdlib>
#include <cstring>

#include "foundation/foundation.h"

namespace {

constexpr const char* kSyntaxError = "parse error";
constexpr const char* kStackExhausted = "parser stack overflow";

// Takes ownership of both strings; the pair holds copies.
CVekVarBind* makeItem(char* name, char* value) {
    const CVekAtom nameAtom(name);
    const CVekAtom valueAtom(value);
    return new CVekVarBind(nameAtom, &valueAtom);
}

CVekVBList* append(CVekVBList* items, CVekVarBind* item) {
    items->RVBLAddToListEnd(item);
    return items;
}

}  // namespace

// Replaces the generator's texts of its two errors.
static void VekRvdCfgerror(kvx::config::Findings* findings, const char* message) {
    const bool exhausted = std::strcmp(message, "memory exhausted") == 0;
    findings->push_back(kvx::config::parserError(exhausted ? kStackExhausted : kSyntaxError,
                                                 kvx::config::currentLine()));
}
}

%union {
    char* text;
    CVekVarBind* item;
    CVekVBList* items;
}

%token _VEK_RENDEZVOUS 257
%token _VEK_SESSION 258
%token _VEK_FOR 259
%token _VEK_HOST 260
%token <text> _VEK_QSTRING 261

%type <text> OptHostName
%type <item> RvdCfgItem
%type <items> RvdCfgItemList

%destructor { std::free($$); } <text>
%destructor { delete $$; } <item> <items>

/* A file and a block may be empty; shifting is always right. */
%expect 3

%%

RvdCfgHostList:
      RvdCfgHost
    | RvdCfgHostList RvdCfgHost
    | error
    ;

RvdCfgHost:
      _VEK_RENDEZVOUS _VEK_SESSION OptHostName '=' '{' RvdCfgItemList '}' ';'
        {
            findings->push_back(kvx::config::block($3, $6));
            std::free($3);
        }
    | %empty
    ;

OptHostName:
      _VEK_FOR _VEK_HOST _VEK_QSTRING  { $$ = $3; }
    | %empty                           { $$ = nullptr; }
    ;

RvdCfgItemList:
      RvdCfgItem                       { $$ = append(new CVekVBList, $1); }
    | RvdCfgItemList ',' RvdCfgItem    { $$ = append($1, $3); }
    ;

RvdCfgItem:
      _VEK_QSTRING '=' _VEK_QSTRING    { $$ = makeItem($1, $3); }
    ;
