/* The query language: select fields from one table, where, order by, limit. */

%require "3.8"
%language "c++"
%define api.namespace {modeld::oql::grammar}
%define api.parser.class {Parser}
%define api.token.constructor
%define api.token.prefix {TOK_}
%define api.value.type variant
%define api.value.automove
%define api.location.type {modeld::oql::grammar::Span}
%define parse.error custom
%locations

%code requires {
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "examples/modeld/oql/Query.h"

namespace modeld::oql::grammar {

/// The text range of a symbol; the grammar needs only its beginning.
struct Span {
    Position begin = 0;
};

class Driver;

}  // namespace modeld::oql::grammar

#define YYLLOC_DEFAULT(Current, Rhs, N) \
    (Current).begin = (N) != 0 ? YYRHSLOC(Rhs, 1).begin : YYRHSLOC(Rhs, 0).begin
}

%code {
#include <algorithm>

#include "examples/modeld/oql/Driver.h"

namespace modeld::oql::grammar {

static Parser::symbol_type yylex(Driver& driver) { return driver.nextSymbol(); }

}  // namespace modeld::oql::grammar
}

%param { modeld::oql::grammar::Driver& driver }

%token END 0 "the end of the query"
%token SELECT "select" FROM "from" WHERE "where" ORDER "order" BY "by" ASC "asc" DESC "desc"
%token LIMIT "limit" AND "and" OR "or" NOT "not" LIKE "like" IS "is" NULL_ "null"
%token STAR "*" COMMA "," OPEN "(" CLOSE ")" SEMICOLON ";"
%token EQUAL "=" NOT_EQUAL "!=" LESS "<" LESS_OR_EQUAL "<=" GREATER ">" GREATER_OR_EQUAL ">="
%token <std::string> NAME "a name" TEXT "a text in quotes" QUOTED
%token <std::int64_t> INTEGER "a whole number"
%token <double> REAL "a number"
%token BAD

%nterm <std::vector<Name>> fields names
%nterm <Name> name
%nterm <ConditionPtr> where condition conjunction factor comparison
%nterm <Comparison> operator
%nterm <Literal> literal
%nterm <std::vector<Order>> ordering orders
%nterm <Order> order
%nterm <bool> direction
%nterm <std::optional<std::int64_t>> limit

%%

query: "select" fields "from" name where ordering limit end {
        driver.query.fields = $fields;
        driver.query.table = $name;
        driver.query.where = $where;
        driver.query.order = $ordering;
        driver.query.limit = $limit;
    };

end: %empty | ";";

fields: "*" { $$ = {}; } | names;

names: name { $$.push_back($name); }
     | names "," name { $$ = $1; $$.push_back($name); };

name: NAME { $$ = Name{$1, @1.begin}; }
    | QUOTED { $$ = Name{$1, @1.begin}; };

where: %empty { $$ = nullptr; } | "where" condition { $$ = $condition; };

condition: conjunction
         | condition "or" conjunction { $$ = driver.join<Any>($1, $3); };

conjunction: factor
           | conjunction "and" factor { $$ = driver.join<All>($1, $3); };

factor: comparison
      | opening condition ")" { driver.leave(); $$ = $condition; }
      | negation factor { driver.leave(); $$ = driver.negate($2); };

opening: "(" { if (!driver.enter(@1.begin)) YYABORT; };

negation: "not" { if (!driver.enter(@1.begin)) YYABORT; };

comparison: name operator literal {
        $$ = driver.compare($name, $operator, $literal);
        if (!$$) YYABORT;
    }
  | name "is" "null" {
        $$ = driver.compare($name, Comparison::Equal, Null{});
        if (!$$) YYABORT;
    }
  | name "is" "not" "null" {
        $$ = driver.compare($name, Comparison::NotEqual, Null{});
        if (!$$) YYABORT;
    };

operator: "=" { $$ = Comparison::Equal; }
        | "!=" { $$ = Comparison::NotEqual; }
        | "<" { $$ = Comparison::Less; }
        | "<=" { $$ = Comparison::LessOrEqual; }
        | ">" { $$ = Comparison::Greater; }
        | ">=" { $$ = Comparison::GreaterOrEqual; }
        | "like" { $$ = Comparison::Like; };

literal: TEXT { $$ = Literal($1); }
       | QUOTED { $$ = Literal($1); }
       | INTEGER { $$ = Literal($1); }
       | REAL { $$ = Literal($1); };

ordering: %empty { $$ = {}; } | "order" "by" orders { $$ = $orders; };

orders: order { $$.push_back($order); }
      | orders "," order { $$ = $1; $$.push_back($order); };

order: name direction { $$ = Order{$name, $direction}; };

direction: %empty { $$ = false; } | "asc" { $$ = false; } | "desc" { $$ = true; };

limit: %empty { $$ = std::nullopt; }
     | "limit" INTEGER {
        $$ = $2;
        if (*$$ < 0) {
            driver.fail("a limit cannot be negative", @2.begin);
            YYABORT;
        }
    };

%%

namespace modeld::oql::grammar {

void Parser::report_syntax_error(const context& where) const {
    symbol_kind_type expected[6];
    const int all = where.expected_tokens(expected, 6);
    // A quoted token is a name or a text, one of which is in the list as well.
    const int count =
        static_cast<int>(std::remove(expected, expected + all, symbol_kind::S_QUOTED) - expected);
    std::string message = "unexpected " + driver.describeLast();
    for (int i = 0; i < count; ++i) {
        message += i == 0 ? ", expected " : (i + 1 == count ? " or " : ", ");
        message += symbol_name(expected[i]);
    }
    driver.fail(std::move(message), where.location().begin);
}

void Parser::error(const location_type& where, const std::string& message) {
    driver.fail(message, where.begin);
}

}  // namespace modeld::oql::grammar
