<?php
// A SabreDAV server for one test run, as the router script of `php -S`. From the environment: DATABASE (a
// SQLite file that the harness has filled) and AUTHENTICATION ("basic" or "digest").

error_reporting(0);  // this SabreDAV is older than this PHP, which has notices to give about it
date_default_timezone_set('UTC');
set_include_path('/usr/share/php');
require_once 'Sabre/autoload.php';

// The library has Digest over the database, but Basic only for own rules.
class BasicBackend extends \Sabre\DAV\Auth\Backend\AbstractBasic
{
    private $users;

    public function __construct(\Sabre\DAV\Auth\Backend\PDO $users)
    {
        $this->users = $users;
    }

    protected function validateUserPass($user, $password)
    {
        $digest = $this->users->getDigestHash('SabreDAV', $user);
        return $digest !== null && hash_equals($digest, md5("$user:SabreDAV:$password"));
    }
}

// The library finds principals by e-mail address, but not by the address that CalDAV makes of it.
class PrincipalBackend extends \Sabre\DAVACL\PrincipalBackend\PDO
{
    public function searchPrincipals($prefixPath, array $searchProperties)
    {
        $address = '{urn:ietf:params:xml:ns:caldav}calendar-user-address-set';
        if (isset($searchProperties[$address])) {
            $searchProperties['{http://sabredav.org/ns}email-address'] =
                preg_replace('/^mailto:/i', '', $searchProperties[$address]);
            unset($searchProperties[$address]);
        }
        return parent::searchPrincipals($prefixPath, $searchProperties);
    }
}

$pdo = new \PDO('sqlite:' . getenv('DATABASE'));
$pdo->setAttribute(\PDO::ATTR_ERRMODE, \PDO::ERRMODE_EXCEPTION);
$users = new \Sabre\DAV\Auth\Backend\PDO($pdo);
$principals = new PrincipalBackend($pdo);
$calendars = new \Sabre\CalDAV\Backend\PDO($pdo);

$server = new \Sabre\DAV\Server([
    new \Sabre\CalDAV\Principal\Collection($principals),
    new \Sabre\CalDAV\CalendarRootNode($principals, $calendars),
]);
$server->setBaseUri('/');
$authentication = getenv('AUTHENTICATION') === 'basic' ? new BasicBackend($users) : $users;
$server->addPlugin(new \Sabre\DAV\Auth\Plugin($authentication, 'SabreDAV'));
$server->addPlugin(new \Sabre\DAVACL\Plugin());
$server->addPlugin(new \Sabre\CalDAV\Plugin());
$server->exec();
