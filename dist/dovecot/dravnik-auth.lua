-- Dovecot's Lua passdb and userdb over dravnik-auth, the checkpassword
-- program of the mailboxes dravnik makes.
--
-- The login goes to dravnik-auth on descriptor 3 through a pipe, never on
-- a command line or in the environment. SERVICE puts it in Dovecot's mode
-- (user fields instead of a change of ids); AUTHORIZED=1 asks for the user
-- fields of an address without a password.

local program = "/usr/sbin/dravnik-auth"

-- One shell word holding `text` as it is.
local function quote(text)
  return "'" .. (string.gsub(text, "'", "'\\''")) .. "'"
end

-- exit status of a popen()ed command: 0 for success, nil when it did not
-- exit normally.
local function status_of(pipe)
  local ok, how, code = pipe:close()
  if ok then
    return 0
  end
  if how == "exit" then
    return code
  end
  return nil
end

function auth_password_verify(request, password)
  local service = request.service or "lua"
  local pipe = io.popen("SERVICE=" .. quote(service) .. " exec " .. program ..
                        " /bin/true 3<&0 >/dev/null", "w")
  if pipe == nil then
    return dovecot.auth.PASSDB_RESULT_INTERNAL_FAILURE, "cannot run " .. program
  end
  pipe:write(request.user, "\0", password, "\0\0")
  local status = status_of(pipe)
  if status == 0 then
    return dovecot.auth.PASSDB_RESULT_OK, ""
  elseif status == 1 then
    return dovecot.auth.PASSDB_RESULT_PASSWORD_MISMATCH, ""
  end
  return dovecot.auth.PASSDB_RESULT_INTERNAL_FAILURE, program .. " failed"
end

function auth_userdb_lookup(request)
  local pipe = io.popen("printf '%s\\000\\000\\000' " .. quote(request.user) ..
                        " | SERVICE=lua AUTHORIZED=1 exec " .. program ..
                        " /usr/bin/printenv HOME userdb_uid userdb_gid userdb_mail 3<&0", "r")
  if pipe == nil then
    return dovecot.auth.USERDB_RESULT_INTERNAL_FAILURE, "cannot run " .. program
  end
  local fields = {}
  for line in pipe:lines() do
    fields[#fields + 1] = line
  end
  local status = status_of(pipe)
  if status == 0 and #fields == 4 then
    return dovecot.auth.USERDB_RESULT_OK,
           { home = fields[1], uid = fields[2], gid = fields[3], mail = fields[4] }
  elseif status == 1 then
    return dovecot.auth.USERDB_RESULT_USER_UNKNOWN, ""
  end
  return dovecot.auth.USERDB_RESULT_INTERNAL_FAILURE, program .. " failed"
end
