#pragma once

#include <string>

#include <libsoup/soup.h>

/* Who may come in: the address that the program prints holds a token, which a cookie keeps from then on. */
class Access
{
public:
  gboolean open (GError **error);

  /* Answers a request that must not go on and returns false: a foreign one, or one that brings the token. */
  bool check (SoupServerMessage *message, GUri *uri) const;

  const std::string &
  get_token () const
  {
    return token;
  }

private:
  bool is_token (const gchar *text) const;
  bool has_cookie (SoupServerMessage *message) const;

  std::string token;
  std::string cookie_name; /* cookies know no ports: several sessions on one machine need several names */
};
